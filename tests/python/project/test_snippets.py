"""Everything that README and docs show runs unchanged: every block of Python, every command.

The blocks of a page run in order, those of Python in one namespace, in a folder of their own that looks like the
project's and has a model.onnx in it.
"""

import logging
import re
import shutil
import subprocess
import sys
from pathlib import Path

import pytest

from conftest import REPOSITORY
from onnxgraft.catalogue import registry as catalogue
from onnxgraft.cli import main
from tools import api_reference
from tools.snippets import Block, blocks

PAGES = {
    str(page.relative_to(REPOSITORY)): [block for block in blocks(page) if block.language in ("python", "sh", "toml")]
    for page in [REPOSITORY / "README.md", *sorted(REPOSITORY.glob("docs/**/*.md"))]
}
TARGETS = re.findall(r"^([a-z-]+):", (REPOSITORY / "Makefile").read_text(), re.MULTILINE)


@pytest.fixture
def place(tmp_path: Path, monkeypatch: pytest.MonkeyPatch) -> Path:
    monkeypatch.chdir(tmp_path)
    shutil.copytree(REPOSITORY / "examples", tmp_path / "examples")
    shutil.copy(tmp_path / "examples/models/resnet18_timm_c11.onnx", "model.onnx")
    (tmp_path / "build").mkdir()
    # Both are restored afterwards.
    logger, registry = logging.getLogger("onnxgraft"), dict(catalogue._registry())
    for name, value in (("handlers", list(logger.handlers)), ("level", logger.level), ("propagate", logger.propagate)):
        monkeypatch.setattr(logger, name, value)
    monkeypatch.setattr(catalogue, "_registry", lambda: registry)
    return tmp_path


def run(words: list[str]) -> int:
    """Tries a command; returns its exit code."""
    folder = Path()
    match words:
        case ["onnxgraft", *arguments] | ["python", "-m", "onnxgraft", *arguments]:
            try:
                return main(arguments)
            except SystemExit as stop:
                return int(stop.code or 0)
        case ["make", *arguments]:
            targets = [argument for argument in arguments if "=" not in argument]
            return 0 if targets and set(targets) <= set(TARGETS) else 2
        case ["pip", "install", *_]:
            return 0
        case ["python", "-m", module, *_] if module.partition(".")[0] in ("tools", "bench"):
            # These take minutes or write into the tree: check only that they exist.
            words, folder = ["python", "-m", module, "--help"], REPOSITORY
        case ["python" | "ls" | "cat" | "mkdir" | "cp", *_]:
            pass
        case _:
            raise AssertionError(f"cannot try `{' '.join(words)}`; output belongs into a block of text")
    program = {"python": sys.executable}.get(words[0], words[0])
    return subprocess.run([program, *words[1:]], cwd=folder, stdout=subprocess.DEVNULL).returncode


@pytest.mark.parametrize("page", [page for page, found in PAGES.items() if found])
def test_everything_that_a_page_shows_runs(place: Path, page: str, capsys: pytest.CaptureFixture[str]) -> None:
    namespace: dict[str, object] = {"__name__": "page"}
    for block in PAGES[page]:
        if block.language == "python":
            block.run_python(namespace)
        elif block.language == "sh" and page != "README.md":  # it has a test of its own
            run_commands(block, capsys)
        elif name := re.match(r"# (\S+\.toml)\n", block.text):
            (place / name[1]).write_text(block.text)


def run_commands(block: Block, capsys: pytest.CaptureFixture[str]) -> None:
    for words, expected in block.commands():
        code = run(words)
        shown = capsys.readouterr()
        assert code == expected, f"{block.page.name}, line {block.line}: {' '.join(words)}\n{shown.out}{shown.err}"


def test_pages_are_listed_and_up_to_date(repository: Path) -> None:
    assert len(PAGES["README.md"]) >= 3
    index = (repository / "docs/README.md").read_text()
    pages = {str(path.relative_to(repository / "docs")) for path in repository.glob("docs/*/*.md")}
    assert api_reference.page() == (repository / "docs/reference/api.md").read_text(), "run make docs"
    assert pages <= set(re.findall(r"\]\(([^)#]+)\)", index))
