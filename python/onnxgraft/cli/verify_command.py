"""`onnxgraft verify`: do two models compute the same?"""

from __future__ import annotations

import argparse

from onnxgraft.cli import consoles, json_output
from onnxgraft.cli.exit_codes import ExitCode
from onnxgraft.io import model_files
from onnxgraft.samples import open_data
from onnxgraft.verification import Verification, verify


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
        inputs=None if options.inputs is None else open_data(options.inputs, before),
        folder_before=options.before.parent,
        folder_after=options.after.parent,
    )
    if options.json:
        json_output.show({"verdict": result.verdict, "passed": result.passed, **vars(result)})
    else:
        consoles.say(str(result))
    return _code(result)


def _code(result: Verification) -> ExitCode:
    if result.passed:
        return ExitCode.DONE
    return ExitCode.DIFFERENT if result.differs else ExitCode.NOT_COMPARED
