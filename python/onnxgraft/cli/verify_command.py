"""`onnxgraft verify`: do two models compute the same, or how close are they?"""

from __future__ import annotations

import argparse

import onnx

from onnxgraft.cli import consoles, json_output
from onnxgraft.cli.data_options import images_of
from onnxgraft.cli.exit_codes import ExitCode
from onnxgraft.cli.text_output import TextOutput
from onnxgraft.errors import VerificationError
from onnxgraft.io import model_files
from onnxgraft.samples import Samples, open_data
from onnxgraft.verification import Verification, measure, verify


def run(options: argparse.Namespace) -> int:
    """Compares the outputs; the exit code reports whether they agree."""
    if options.sqnr is not None or options.per_tensor or options.sensitivity or options.html is not None:
        return _measure(options)
    before, after = model_files.load(options.before), model_files.load(options.after)
    result = verify(
        before,
        after,
        seed=options.seed or 0 if options.inputs is None else 0,
        sizes=dict(options.size) if options.inputs is None else None,
        runs=options.runs,
        tolerance=options.tolerance,
        inputs=None if options.inputs is None else _samples(options, before),
        folder_before=options.before.parent,
        folder_after=options.after.parent,
    )
    if options.json:
        json_output.show({"verdict": result.verdict, "passed": result.passed, **vars(result)})
    else:
        consoles.say(str(result))
    return _code(result)


def _samples(options: argparse.Namespace, before: onnx.ModelProto) -> Samples:
    data = f"random:{options.runs}" if options.inputs is None else options.inputs
    return open_data(data, before, images=images_of(options), sizes=dict(options.size), seed=options.seed or 0)


def _measure(options: argparse.Namespace) -> int:
    if options.tolerance is not None:
        raise VerificationError("--tolerance cannot be combined with --sqnr, --per-tensor, --sensitivity or --html")
    with TextOutput(options.html, overwrite=options.force) as page:
        before, after = model_files.load(options.before), model_files.load(options.after)
        with consoles.countdown("measuring") as progress:
            result = measure(
                before,
                after,
                _samples(options, before),
                wanted=options.sqnr,
                per_tensor=options.per_tensor or options.html is not None,
                sensitivity=options.sensitivity,
                folder_before=options.before.parent,
                folder_after=options.after.parent,
                progress=progress,
            )
        if page.is_wanted:
            from onnxgraft.verification.accuracy_page import accuracy_page  # noqa: PLC0415

            page.write(accuracy_page(result, before=options.before.name, after=options.after.name))
    if options.json:
        json_output.show({"verdict": result.verdict, "passed": result.passed, **vars(result)})
    else:
        from onnxgraft.verification.accuracy_text import accuracy_text  # noqa: PLC0415

        consoles.say(accuracy_text(result))
    if result.passed:
        return ExitCode.DONE
    return ExitCode.DIFFERENT if result.compared or not result.outputs else ExitCode.NOT_COMPARED


def _code(result: Verification) -> ExitCode:
    if result.passed:
        return ExitCode.DONE
    return ExitCode.DIFFERENT if result.differs else ExitCode.NOT_COMPARED
