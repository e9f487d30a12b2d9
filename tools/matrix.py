"""Runs the tests on every Python that is found, with the oldest and the newest packages.

    python -m tools.matrix [TEST ...]

The packages of each environment are in requirements/matrix/; the environments stay in build/matrix/. Prints a table and
writes it, with the failures, to build/matrix/results.md. ONNXGRAFT_PYTHONS names interpreters, as for tools.packages.
"""

from __future__ import annotations

import re
import subprocess
import sys
import time
from collections.abc import Sequence
from dataclasses import dataclass, field
from pathlib import Path
from xml.etree import ElementTree

from tools.packages import PIP, ROOT, environment_in, interpreters, run

FOLDER = ROOT / "build/matrix"
SETS = ("oldest", "newest")
_PACKAGES = ("numpy", "onnx", "protobuf")
_VERSIONS = f"import importlib.metadata as m; print(*(m.version(n) for n in {_PACKAGES}))"


@dataclass
class Result:
    """One run of the tests."""

    python: str
    packages: list[str]
    passed: int = 0
    skipped: int = 0
    failed: list[str] = field(default_factory=list)
    seconds: float = 0

    def row(self) -> str:
        """As a row of the table."""
        cells = (self.python, *self.packages, self.passed, self.skipped, len(self.failed), round(self.seconds))
        return "| " + " | ".join(map(str, cells)) + " |"


def requirements(name: str) -> list[str]:
    """The lines of all lists; a package that the set lists is left out of the others."""
    own, *others = (
        [line for line in (ROOT / f"requirements/{part}.txt").read_text().splitlines() if re.match(r"\w", line)]
        for part in (f"matrix/{name}", "build", "test")
    )
    chosen = {_package(line) for line in own}
    return own + [line for lines in others for line in lines if _package(line) not in chosen]


def _package(line: str) -> str:
    return re.split(r"[^\w.-]", line, maxsplit=1)[0]


def prepare(version: str, interpreter: str, name: str) -> Path:
    """Makes an environment with one set of packages and the package under test."""
    folder = FOLDER / f"{version}-{name}"
    python = folder / "bin/python"
    if not python.exists():
        python = environment_in(folder, interpreter)
    merged = folder / "requirements.txt"
    merged.write_text("\n".join(requirements(name)) + "\n")
    run(python, *PIP, "install", "--only-binary", ":all:", "-r", merged)
    run(python, *PIP, "install", "--no-deps", "--no-build-isolation", "--force-reinstall", ".")
    return python


def test(version: str, python: Path, arguments: Sequence[str]) -> Result:
    """Runs the tests in an environment."""
    result = Result(version, run(python, "-c", _VERSIONS).split())
    report = python.parents[1] / "report.xml"
    report.unlink(missing_ok=True)
    start = time.monotonic()
    subprocess.run(
        [python, "-m", "pytest", "-q", "-p", "no:cacheprovider", f"--junit-xml={report}", *arguments], cwd=ROOT
    )
    result.seconds = time.monotonic() - start
    if not report.exists():
        result.failed.append("pytest itself")
        return result
    for case in ElementTree.parse(report).iter("testcase"):
        outcomes = {child.tag for child in case}
        if outcomes & {"failure", "error"}:
            result.failed.append(f"{case.get('classname')}::{case.get('name')}")
        elif "skipped" in outcomes:
            result.skipped += 1
        else:
            result.passed += 1
    return result


def main(arguments: Sequence[str]) -> int:
    """Runs everything; 1 if any test failed."""
    results: list[Result] = []
    for version, interpreter in interpreters().items():
        for name in SETS:
            print(f"== Python {version}, {name} packages", flush=True)
            results.append(test(version, prepare(version, interpreter, name), arguments))
            FOLDER.joinpath("results.md").write_text(table(results))
    print(table(results))
    return 1 if not results or any(result.failed for result in results) else 0


def table(results: Sequence[Result]) -> str:
    """All runs as Markdown, with their failures."""
    lines = [
        "| Python | numpy | onnx | protobuf | passed | skipped | failed | seconds |",
        "|---|---|---|---|---|---|---|---|",
    ]
    lines += [result.row() for result in results]
    for result in results:
        lines += [f"\n{result.python} with onnx {result.packages[1]}: {name}" for name in result.failed]
    return "\n".join(lines) + "\n"


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
