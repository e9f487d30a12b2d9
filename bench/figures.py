"""The results of a run: figures with their aims, times of the tools on the same work. Kept as JSON."""

from __future__ import annotations

import json
import os
import platform
from collections.abc import Sequence
from dataclasses import asdict, dataclass, field
from importlib.metadata import PackageNotFoundError, version
from pathlib import Path
from typing import Any

PACKAGES = ("onnx-graft", "onnx", "numpy", "protobuf")


@dataclass(frozen=True)
class Figure:
    """One amount over another, in the same unit, and the limit for the ratio."""

    name: str
    measured: float
    against: float
    aim: float | None = None
    unit: str = "s"
    note: str = ""

    @property
    def value(self) -> float:
        """The ratio."""
        return self.measured / self.against

    @property
    def met(self) -> bool | None:
        """Whether the aim is reached; None without one."""
        return None if self.aim is None else self.value <= self.aim


@dataclass(frozen=True)
class Entry:
    """One tool on one piece of work: the whole path from protobuf to protobuf, and the part without conversion."""

    tool: str
    seconds: float
    rewriting_seconds: float
    checked: str  # what was equal to the result of onnx-graft


@dataclass(frozen=True)
class Contest:
    """All tools on one piece of work, and the floor that none can undercut."""

    work: str
    occurrences: int
    floor: str
    floor_seconds: float
    entries: list[Entry]
    left_out: list[str] = field(default_factory=list)  # "tool: reason"


@dataclass
class Results:
    """Everything measured, by group, and the facts about the machine."""

    figures: dict[str, list[Figure]] = field(default_factory=dict)
    contests: list[Contest] = field(default_factory=list)
    facts: dict[str, Any] = field(default_factory=dict)

    def write(self, path: Path) -> None:
        """Writes them as JSON."""
        path.parent.mkdir(parents=True, exist_ok=True)
        figures = {
            group: [{**asdict(figure), "value": figure.value} for figure in figures]
            for group, figures in self.figures.items()
        }
        content = {"facts": self.facts, "figures": figures, "contests": [asdict(contest) for contest in self.contests]}
        path.write_text(json.dumps(content, indent=2) + "\n")

    @classmethod
    def read(cls, path: Path) -> Results:
        """Reads what `write` wrote."""
        content = json.loads(path.read_text())
        results = cls(facts=content["facts"])
        for group, rows in content["figures"].items():
            results.figures[group] = [Figure(**{key: row[key] for key in row if key != "value"}) for row in rows]
        for row in content["contests"]:
            results.contests.append(Contest(**{**row, "entries": [Entry(**entry) for entry in row["entries"]]}))
        return results


def machine(packages: Sequence[str] = ()) -> dict[str, Any]:
    """The facts that the figures depend on: Python, processors, versions; None for packages that are not installed."""
    return {
        "python": platform.python_version(),
        "system": f"{platform.system()} {platform.machine()}",
        "cores": os.cpu_count(),
        "packages": {name: _version(name) for name in (*PACKAGES, *packages)},
    }


def _version(package: str) -> str | None:
    try:
        return version(package)
    except PackageNotFoundError:
        return None
