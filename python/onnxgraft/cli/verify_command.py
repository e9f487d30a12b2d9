"""`onnxgraft verify`: do two models compute the same?"""

from __future__ import annotations

import argparse

from onnxgraft.cli import consoles
from onnxgraft.io import model_files
from onnxgraft.verification import verify

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
    consoles.say(str(result))
    return 0 if result.passed else DIFFERENT
