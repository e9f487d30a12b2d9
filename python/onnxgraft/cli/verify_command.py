"""`onnxgraft verify`: do two models compute the same?"""

from __future__ import annotations

import argparse

from rich import box
from rich.table import Table

from onnxgraft import model_files
from onnxgraft.cli import consoles
from onnxgraft.verification import Verification, verify

DIFFERENT = 3


def run(options: argparse.Namespace) -> int:
    """Compares the outputs; the exit code says whether they agree."""
    before, after = model_files.load(options.before), model_files.load(options.after)
    result = verify(
        before,
        after,
        seed=options.seed or 0,
        sizes=dict(options.size),
        runs=options.runs,
        tolerance=options.tolerance,
        folder_before=options.before.parent,
        folder_after=options.after.parent,
    )
    _show(result)
    return 0 if result.passed else DIFFERENT


def _show(result: Verification) -> None:
    table = Table("Output", "Type", "Shape", box=box.SIMPLE)
    for heading in ("Largest difference", "Scale", "Relative"):
        table.add_column(heading, justify="right")
    table.add_column("")
    for row in result.rows:
        numbers = (f"{value:.3g}" for value in (row.max_error, row.scale, row.relative_error))
        table.add_row(row.name, row.dtype, str(row.shape), *numbers, "same" if row.passed else "DIFFERENT")
    consoles.results().print(table)
    if result.first_difference:
        consoles.say(f"first tensor that differs: {result.first_difference}")
    for note in result.notes:
        consoles.say(f"note: {note}")
    consoles.say(f"{'the models agree' if result.passed else 'the models differ'} (run by {result.runner})")
