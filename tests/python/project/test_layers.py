"""No package uses a higher layer: the layers of ARCHITECTURE.md against all imports and includes."""

import ast
import re
from collections.abc import Callable, Iterator
from pathlib import Path

import pytest

_PACKAGE = "onnxgraft"
Uses = Iterator[tuple[Path, str, str]]  # the file, its folder, the folder that it uses


def layers(repository: Path, heading: str) -> dict[str, int]:
    """The layer of each name in the block below the heading; 0 is the top one."""
    text = (repository / "ARCHITECTURE.md").read_text()
    block = re.search(rf"{heading}:\n\n```text\n(.*?)```", text, re.DOTALL)
    assert block, f"ARCHITECTURE.md does not list {heading}"
    return {name: level for level, line in enumerate(block[1].splitlines()) for name in line.split()}


def includes(repository: Path) -> Uses:
    for path in (repository / "src").rglob("*.*"):
        folder = path.relative_to(repository / "src").parts[0]
        for used in re.findall(r'#include "(\w+)/', path.read_text()):
            yield path, folder, used


def imports(repository: Path) -> Uses:
    """Imports for type checkers and inside functions count too."""
    root = repository / "python" / _PACKAGE
    for path in root.rglob("*.py"):
        user = path.relative_to(root).with_suffix("").parts[0]
        for statement in ast.walk(ast.parse(path.read_text())):
            if isinstance(statement, ast.Import):
                names = [alias.name for alias in statement.names]
            elif isinstance(statement, ast.ImportFrom):
                assert not statement.level, f"{path}: a relative import"
                names = [f"{statement.module}.{alias.name}" for alias in statement.names]
            else:
                continue
            for name in names:
                first, _, rest = name.partition(".")
                if first == _PACKAGE:
                    yield path, user, rest.partition(".")[0]


@pytest.mark.parametrize(
    ("heading", "found"), [("Folders of C\\+\\+", includes), ("Packages of Python", imports)], ids=["src", "python"]
)
def test_each_layer_uses_lower_ones_only(repository: Path, heading: str, found: Callable[[Path], Uses]) -> None:
    level = layers(repository, heading)
    uses = list(found(repository))
    assert {user for _, user, _ in uses} <= set(level), "a folder without a layer"
    wrong = {
        f"{path.relative_to(repository)} uses {used}"
        for path, user, used in uses
        if user != used and level.get(used, -1) <= level[user]
    }
    assert wrong == set()


def test_the_slow_model_shares_nothing_with_the_package(repository: Path) -> None:
    files = sorted((repository / "tests/python/oracle").glob("*.py"))
    assert len(files) > 5
    assert [path.name for path in files if _PACKAGE in re.findall(r"(?:from|import) (\w+)", path.read_text())] == []
