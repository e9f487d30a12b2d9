"""Checks on the source tree and on the built files: the seams that no compiler watches."""

import re
import subprocess
from pathlib import Path

import pytest

import onnxgraft
from onnxgraft import abstract_transformation, quant, transform_utilities


def test_the_core_does_not_know_the_interpreter(repository: Path) -> None:
    files = [path for path in (repository / "src/core").iterdir() if path.suffix in {".h", ".cpp"}]
    assert files
    include = re.compile(r'#\s*include\s*[<"](?:Python\.h|py/|(?!core/)\w+/)|\bPy(?:Object|_[A-Z])')
    assert [path.name for path in files if include.search(path.read_text())] == []


@pytest.mark.parametrize("module", [abstract_transformation, quant, transform_utilities], ids=lambda m: m.__name__)
def test_an_extension_file_exports_its_entry_only(module: object) -> None:
    path, name = str(vars(module)["__file__"]), str(vars(module)["__name__"]).rpartition(".")[2]
    listing = subprocess.run(["nm", "-D", "--defined-only", path], capture_output=True, text=True, check=True).stdout
    assert [line.split()[-1] for line in listing.splitlines()] == [f"PyInit_{name}"]


def test_every_place_has_the_same_version(repository: Path) -> None:
    declared = {
        "pyproject.toml": r'^version = "([\d.]+)"',
        "CMakeLists.txt": r"^project\(onnxgraft VERSION ([\d.]+)",
        "CHANGELOG.md": r"\A# Changelog\n\n## ([\d.]+) \(\d{4}-\d\d-\d\d\)\n",
    }
    found = {name: re.findall(each, (repository / name).read_text(), re.MULTILINE) for name, each in declared.items()}
    assert found == {name: [onnxgraft.__version__] for name in declared}
