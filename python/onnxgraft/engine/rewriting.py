"""`rewrite`: the one way in which command line and API run transformations over a model."""

from __future__ import annotations

import logging
import os
from collections.abc import Callable, Iterable, Sequence
from dataclasses import replace
from importlib.metadata import PackageNotFoundError, version
from pathlib import Path
from typing import TYPE_CHECKING, Any, Literal

import onnx

from onnxgraft import finishing
from onnxgraft.accounting import Choice, RunFacts, account_of, declared_shapes
from onnxgraft.engine.fingerprint import fingerprint
from onnxgraft.engine.foreign_operators import ForeignOperators
from onnxgraft.engine.recorder import Details
from onnxgraft.engine.run_scope import run_scope
from onnxgraft.engine.selection import Candidate, Selection, candidates, recipe_of
from onnxgraft.engine.stability import Stability
from onnxgraft.engine.stepping import Stepper
from onnxgraft.following import Follower, Host
from onnxgraft.graph.name_check import telling_bad_texts
from onnxgraft.io.model_files import ModelOutput, load
from onnxgraft.io.weight_store import WeightStore
from onnxgraft.report.network import GraphChange, node_lines
from onnxgraft.report.records import Report

if TYPE_CHECKING:
    from onnxgraft.calibration import Calibration
    from onnxgraft.filling import Filling
    from onnxgraft.recipe_book import Recipe

OnError = Literal["stop", "continue"]

# Arguments of `rewrite` that do not apply from file to file.
_OF_FILES = ("model", "transformations", "output", "overwrite", "folder", "weight_store")

_log = logging.getLogger(__name__)


@telling_bad_texts
def rewrite(
    model: onnx.ModelProto | onnx.GraphProto | str | os.PathLike[str],
    transformations: Selection,
    *,
    seed: int | None = None,
    until_stable: bool = False,
    prepare: bool | Iterable[str] = True,
    progress: Callable[[str], object] | None = None,
    on_error: OnError = "stop",
    skip: Iterable[str] = (),
    details: Details = "nodes",
    folder: str | os.PathLike[str] | None = None,
    max_rounds: int = 10,
    weight_store: WeightStore | None = None,
    finish: bool = True,
    followers: Sequence[Follower] = (),
    calibration: Calibration | Filling | None = None,
    exclude: Iterable[str] = (),
    only: Iterable[str] = (),
    output: str | os.PathLike[str] | None = None,
    overwrite: bool = False,
) -> Report:
    """Runs transformations over a model, in order and in place.

    Each transformation is one step: it is done as a whole or, if it raises, undone as a whole. Undoing costs in
    proportion to the changes of the step. Edits of a user's callback inside the content of an initializer stay.

    Args:
        model: The model, or its graph alone; or the path of a model, with `output`.
        transformations: Short names, classes or instances, one or several, or a recipe or its name.
        seed: Seeds NumPy's global generator for this run, from 0 to 2**32 - 1, and restores it afterwards. Without a
            seed the generator is used as it is. Runs in several threads take turns, so that each draws the same numbers
            as it would alone.
        until_stable: Run the whole list again until the graph stops changing. Names of new tensors and the content of
            initializers do not count as changes. A recipe may ask for it too.
        prepare: Whether to convert exporters' forms to those that the patterns name first; or the names of the
            preparation steps to run. True means all steps, or those that the recipe names.
        progress: Called with the name of each step as it starts.
        on_error: "stop" raises at the first transformation that fails, "continue" records it and goes on.
        skip: Short names of transformations to leave out.
        details: What the report contains of each occurrence: only their number, their nodes, or also the nodes around
            them.
        folder: The folder that the locations of external tensors start from; None is the current one.
        max_rounds: The most rounds of `until_stable`.
        weight_store: Where to put new weights, if not into the graph.
        finish: Whether to complete what a transformation leaves open, so that the shapes of its result fit: weights are
            split along their input channels after `delete_concat`, biases get their full length after `fuse_bn_quant`.
            The report counts such places as "finished".
        followers: Called after each transformation, in order, before its result is finished.
        calibration: Ranges of the model's tensors, or a `Filling` with more settings. Then no number is drawn: weights,
            biases, scales and offsets are those of the model. Needs a ModelProto.
        exclude: Operators that stay in float: globs over node names (a node without one goes by its output), "op:Gemm"
            or "input:NAME".
        only: In the same form, the operators that may be quantized; none means all.
        output: The file to write, for a model given as a path. Weights in a data file are written to a new data file
            next to it, and never loaded as a whole. Nothing is written if the run fails.
        overwrite: Whether `output` may exist.

    Returns:
        The report.

    Raises:
        TransformationError: A transformation failed. The model is in its state before that step; the error has the
            report of the steps before.
        UnknownTransformationError: There is no transformation of a given name.
        UnknownNameError: A glob of `exclude` or `only` matches no node.
        ModelFileError: A file cannot be read or written.
        TypeError: `model` or an element of `transformations` is of another type.
        ValueError: Another argument is out of its range.
        FillingError: The model cannot be filled with the calibration; nothing but the preparation was done.
    """
    if isinstance(model, str | os.PathLike) or output is not None:
        options = {name: value for name, value in locals().items() if name not in _OF_FILES}
        return _rewrite_file(model, transformations, output, overwrite=overwrite, options=options)
    graph = _graph(model)
    _check(on_error, ("stop", "continue"), "on_error")
    _check(details, ("counts", "nodes", "neighbours"), "details")
    if max_rounds < 1:
        raise ValueError(f"max_rounds must be 1 or more, not {max_rounds}")
    recipe = recipe_of(transformations)
    chosen = candidates(transformations if recipe is None else recipe, skip)
    host = Host(graph, model if isinstance(model, onnx.ModelProto) else None, folder, weight_store)
    report = Report(model=str(graph.name) or None, seed=seed, version=_version())
    with run_scope(seed, folder):
        filling = None if calibration is None else _filling(model, calibration, folder)
        if prepare is not False:
            steps = prepare if not isinstance(prepare, bool) else None if recipe is None else recipe.prepare
            _prepare(model, steps, folder, report, progress, weight_store)
        before = node_lines(graph) if details != "counts" else None
        functions = host.model.functions if host.model is not None else ()
        foreign = ForeignOperators(graph, functions)
        facts = RunFacts(choice=_choice(graph, recipe, exclude, only))
        filler = None
        if filling is not None and host.model is not None:
            from onnxgraft.filling.beginning import begin  # noqa: PLC0415

            rows = [candidate.row for candidate in chosen]
            filler = begin(host.model, filling, rows, folder=folder, store=weight_store, progress=progress)
        stepper = Stepper(host, details, [*followers, *finishing.followers(host, finish=finish)], filler, facts)
        stability = None
        if until_stable or (recipe is not None and recipe.until_stable):
            stability = Stability(fingerprint(graph))
        while not _is_done(report, stability, max_rounds):
            _run_round(stepper, chosen, report, stability, progress, stops=on_error == "stop")
        report.warnings += foreign.warnings(report.steps)
        if details != "counts":
            report.numbers = list(finishing.operator_numbers(host))
            if filler is not None:
                report.numbers = [replace(one, saturated=filler.share_cut_off(one)) for one in report.numbers]
        if before is not None:
            report.change = GraphChange(before, node_lines(graph))
        report.account = account_of(graph, declared_shapes(graph), facts, functions)
    if filler is not None:
        report.filled = filler.result
        report.warnings += filler.result.warnings
    for warning in report.warnings:
        _log.warning("%s", warning)
    return report


def _filling(
    model: onnx.ModelProto | onnx.GraphProto,
    calibration: Calibration | Filling,
    folder: str | os.PathLike[str] | None,
) -> Filling:
    """The filling of this run. The model is as given, and a calibration of another one is refused."""
    from onnxgraft.calibration import model_fingerprint  # only on demand  # noqa: PLC0415
    from onnxgraft.filling import Filling  # noqa: PLC0415

    if not isinstance(model, onnx.ModelProto):
        raise TypeError("a calibration belongs to a model: expected a ModelProto, not its graph")
    filling = calibration if isinstance(calibration, Filling) else Filling(calibration)
    if filling.calibration.fingerprint:  # a calibration written by hand may have none
        filling.calibration.check_model(model_fingerprint(model, folder))
    return filling


def _rewrite_file(
    model: Any,
    transformations: Selection,
    output: str | os.PathLike[str] | None,
    *,
    overwrite: bool,
    options: dict[str, Any],
) -> Report:
    """From file to file, as `onnxgraft apply` does."""
    if not isinstance(model, str | os.PathLike):
        raise TypeError("output= needs a model given as a path; save another one with onnx.save")
    if output is None:
        raise TypeError("a model given as a path needs output=, the file to write")
    source = Path(model)
    with ModelOutput(Path(output), overwrite=overwrite) as target:
        loaded = load(source)
        store = target.weights_for(loaded, source.parent, source)
        report = rewrite(loaded, transformations, **(options | {"folder": store.folder, "weight_store": store}))
        target.save(loaded, source.parent)
    report.model = source.name
    return report


def _choice(graph: onnx.GraphProto, recipe: Recipe | None, exclude: Iterable[str], only: Iterable[str]) -> Choice:
    """What the caller and the recipe leave out."""
    out, into = ([one] if isinstance(one, str) else list(one) for one in (exclude, only))
    return Choice(graph, [*out, *(recipe.exclude if recipe else ())], [*into, *(recipe.only if recipe else ())])


def _graph(model: Any) -> onnx.GraphProto:
    if isinstance(model, onnx.ModelProto):
        return model.graph
    if isinstance(model, onnx.GraphProto):
        return model
    if isinstance(getattr(model, "model_proto", None), onnx.ModelProto):
        raise TypeError(
            f"{type(model).__name__} holds a copy of its model, so changes would be lost: pass its `model_proto`, and "
            "build it again from the result"
        )
    raise TypeError(f"expected a ModelProto, a GraphProto or a path, not {type(model).__name__}")


def _check(value: str, known: Iterable[str], name: str) -> None:
    if value not in known:
        raise ValueError(f"{name} must be {' or '.join(map(repr, known))}, not {value!r}")


def _version() -> str:
    try:
        return version("onnx-graft")
    except PackageNotFoundError:
        return ""


def _prepare(
    model: onnx.ModelProto | onnx.GraphProto,
    steps: Iterable[str] | None,
    folder: str | os.PathLike[str] | None,
    report: Report,
    progress: Callable[[str], object] | None,
    weight_store: WeightStore | None,
) -> None:
    from onnxgraft import preparation  # noqa: PLC0415

    if progress is not None:
        progress("prepare")
    report.prepared = preparation.prepare(model, steps, folder=folder, weight_store=weight_store)
    changes = ", ".join(f"{step.name} {step.changed}" for step in report.prepared if step.changed)
    _log.info("prepared: %s", changes or "nothing to do")


def _run_round(
    stepper: Stepper,
    chosen: Iterable[Candidate],
    report: Report,
    stability: Stability | None,
    progress: Callable[[str], object] | None,
    *,
    stops: bool,
) -> None:
    report.rounds += 1
    if stability is not None:
        stability.begin_round()
    for candidate in chosen:
        if progress is not None:
            progress(candidate.name)
        step, error = stepper.run(candidate, report.rounds)
        report.steps.append(step)
        if step.undone is not None:
            warning = f"'{step.transformation}' was undone: {step.undone}"
            if warning not in report.warnings:  # in a later round it runs again
                report.warnings.append(warning)
        if error is not None:
            if stops:
                error.report = report
                raise error
            _log.warning("%s; undone and left out", error)
        # A built-in class that replaced nothing changed nothing.
        if stability is not None and error is None and (step.replaced or not candidate.row.is_own):
            stability.note(candidate.name, fingerprint(stepper.host.graph))


def _is_done(report: Report, stability: Stability | None, max_rounds: int) -> bool:
    """Whether no further round is needed; records in the report how the run ended."""
    if report.rounds == 0:
        return False
    if stability is None:
        return True
    report.stable = stability.is_stable
    if report.stable:
        return True
    if pair := stability.returning():
        first, second = pair
        text = f"'{first}' and '{second}' undo each other" if first != second else f"'{first}' undoes its own work"
        report.warnings.append(f"stopped after round {report.rounds}: {text}; leave one of them out")
        return True
    if report.rounds == max_rounds:
        names = " and ".join(f"'{name}'" for name in stability.last_changing()[:2])
        report.warnings.append(
            f"stopped after {max_rounds} rounds: {names} still changed the graph; they may undo each other"
        )
        return True
    return False
