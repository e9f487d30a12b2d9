"""`onnxgraft apply`: reads, rewrites, writes, and reports what was replaced."""

from __future__ import annotations

import argparse
from collections.abc import Callable
from contextlib import ExitStack
from pathlib import Path
from typing import Any, Literal

import onnx

from onnxgraft.calibration import Calibration
from onnxgraft.cli import chosen, claims, consoles, model_output
from onnxgraft.cli.exit_codes import ExitCode
from onnxgraft.cli.fill_options import filling_of
from onnxgraft.cli.interactive import asking
from onnxgraft.cli.operator_table import operator_table, operators_of, size_of
from onnxgraft.cli.text_output import TextOutput
from onnxgraft.engine import Report, rewrite
from onnxgraft.errors import WrongUsageError
from onnxgraft.io import model_files
from onnxgraft.io.staged_files import publish
from onnxgraft.io.weight_files import WeightFile

_BEST = "auto"


def run(options: argparse.Namespace) -> int:
    """Applies the transformations; writes nothing unless all went well."""
    if options.recipe == _BEST:
        _choose_recipe(options)
    names = [row.name for row in chosen.rows(options)]  # unknown names end here
    saved = None
    with ExitStack() as stack:
        page = stack.enter_context(TextOutput(options.report, overwrite=options.force))
        output = None if options.dry_run else stack.enter_context(model_output.claim(options))
        show = stack.enter_context(consoles.progress(names))
        show(f"reading {options.model.name}")
        model = model_files.load(options.model)
        claims.keep_off(options.model, model)
        before, size = operators_of(model), size_of(options.model, model)
        store = None if output is None else output.weights_for(model, options.model.parent, options.model)
        report = _rewrite(options, model, store, show)
        if options.fail_if_unchanged and not report.replaced:
            consoles.error("nothing was replaced, so nothing was written; `onnxgraft explain` gives the reasons")
            return ExitCode.UNCHANGED
        files = page.hold(_report_text(options, report)) if page.is_wanted else []
        if output is not None:
            show(f"writing {options.output.name}")
            saved = output.save(model, options.model.parent, together_with=files)
        else:
            publish(files)
    consoles.say(str(report))
    sizes = None if saved is None else (size, saved.size + saved.data_size)
    consoles.say("\n" + operator_table(before, operators_of(model), sizes) + "\n")
    if saved is not None:
        model_output.tell(saved)
    if page.is_wanted:
        consoles.say(f"wrote {options.report}")
    return _code(report)


def _choose_recipe(options: argparse.Namespace) -> None:
    """Replaces "auto" by the name of the best recipe."""
    from onnxgraft.inspection import inspect  # rarely wanted  # noqa: PLC0415

    scores = inspect(options.model).recipes
    if not scores:
        raise WrongUsageError("--recipe auto: no recipe replaces anything in this model; name one, or use -t")
    options.recipe = scores[0].name
    consoles.say(f"recipe: {options.recipe} (the first of {', '.join(score.name for score in scores)})")


def _code(report: Report) -> ExitCode:
    failed = list(dict.fromkeys(step.transformation for step in report.steps if step.error is not None))
    if not failed:
        return ExitCode.DONE
    consoles.error(f"left out, since {'it' if len(failed) == 1 else 'they'} failed: {', '.join(failed)}")
    return ExitCode.LEFT_OUT


def _rewrite(
    options: argparse.Namespace, model: onnx.ModelProto, store: WeightFile | None, show: Callable[[str], object]
) -> Report:
    recipe = chosen.recipe(options)
    selection: Any = options.transformation if recipe is None else recipe
    if options.pattern is not None:
        selection = chosen.rows(options)
    if options.interactive:
        selection = asking(selection if recipe is None else recipe.transformations)
    details: Literal["counts", "nodes", "neighbours"] = "counts"
    if options.report is not None:
        details = "nodes" if options.report.suffix.lower() == ".json" else "neighbours"
    folder = options.model.parent if store is None else store.folder
    own = _own_calibration(options, model, folder)
    report = rewrite(
        model,
        selection,
        seed=options.seed,
        until_stable=options.until_stable,
        prepare=chosen.preparation(options),
        progress=show,
        on_error="continue" if options.keep_going else "stop",
        skip=options.skip,
        exclude=options.exclude,
        only=options.only,
        details=details,
        folder=folder,
        weight_store=store,
        finish=options.finish,
        calibration=filling_of(options, model, Path(folder), own, show),
    )
    report.model = options.model.name
    return report


def _own_calibration(options: argparse.Namespace, model: onnx.ModelProto, folder: Path | str) -> Calibration | None:
    """The calibration in a model that another tool quantized; the model then becomes a float one."""
    from onnxgraft.quantized_models import is_quantized, read_quantized  # rarely wanted  # noqa: PLC0415

    if not is_quantized(model) or not any(row.randomizes for row in chosen.rows(options)):
        return None
    floats, calibration = read_quantized(model, folder)
    model.CopyFrom(floats)
    return calibration


def _report_text(options: argparse.Namespace, report: Report) -> str:
    if options.report.suffix.lower() == ".json":
        return report.to_json()
    from onnxgraft.report.report_page import MOST_CARDS, report_page  # only if a page is wanted  # noqa: PLC0415

    most = MOST_CARDS if options.report_cards is None else options.report_cards
    return report_page(report, most=most)
