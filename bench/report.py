"""Shows ratios and keeps them for comparison."""

from __future__ import annotations

import json
import platform
from collections.abc import Sequence
from dataclasses import asdict
from importlib.metadata import version
from pathlib import Path

from rich import box
from rich.console import Console
from rich.table import Table

from bench.timing import Ratio


def show(ratios: Sequence[Ratio]) -> None:
    """Prints a table."""
    table = Table("Ratio", box=box.SIMPLE)
    for heading in ("Measured", "Aim", "Milliseconds", "Floor"):
        table.add_column(heading, justify="right")
    for ratio in ratios:
        mark = "" if ratio.value <= ratio.aim else " !"
        times = (f"{1000 * seconds:.2f}" for seconds in (ratio.seconds, ratio.floor_seconds))
        table.add_row(ratio.name, f"{ratio.value:.2f}{mark}", f"<= {ratio.aim:g}", *times)
    Console(markup=False, highlight=False, width=110).print(table)


def write(ratios: Sequence[Ratio], path: Path) -> None:
    """Writes them, with what they were measured on, as JSON."""
    path.parent.mkdir(parents=True, exist_ok=True)
    content = {
        "python": platform.python_version(),
        "packages": {name: version(name) for name in ("onnx", "numpy", "protobuf", "onnx-graft")},
        "ratios": [{**asdict(ratio), "value": ratio.value} for ratio in ratios],
    }
    path.write_text(json.dumps(content, indent=2) + "\n")
