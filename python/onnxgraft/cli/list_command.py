"""`onnxgraft list`."""

from __future__ import annotations

import argparse

from rich import box
from rich.table import Table

from onnxgraft.catalogue import rows
from onnxgraft.cli import consoles


def run(options: argparse.Namespace) -> int:
    """Shows a table of all transformations."""
    table = Table("Name", "Class", "Prepared for", box=box.SIMPLE)
    table.add_column("Patterns", justify="right")
    for row in rows().values():
        table.add_row(row.name, row.cls.__name__, row.prepared_for, str(len(row.pairs)))
    consoles.results().print(table)
    return 0
