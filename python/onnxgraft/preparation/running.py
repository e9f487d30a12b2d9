"""Runs the steps that a caller chose, in the order in which one step prepares the next."""

from __future__ import annotations

import difflib
import logging
import os
from collections.abc import Iterable
from time import perf_counter
from typing import TYPE_CHECKING

from onnx import GraphProto, ModelProto

from onnxgraft.errors import PreparationError
from onnxgraft.graph.name_check import telling_bad_texts
from onnxgraft.preparation.steps import STEPS
from onnxgraft.preparation.workpiece import Workpiece
from onnxgraft.report.records import PreparationStep

if TYPE_CHECKING:
    from onnxgraft.io.weight_store import WeightStore

LOG = logging.getLogger(__name__)


@telling_bad_texts
def prepare(
    model: ModelProto | GraphProto,
    steps: Iterable[str] | None = None,
    *,
    skip: Iterable[str] = (),
    folder: str | os.PathLike[str] | None = None,
    weight_store: WeightStore | None = None,
) -> list[PreparationStep]:
    """Prepares a model for the transformations, in place. Its function does not change.

    Args:
        model: The model, or its graph alone: then no shapes are inferred, since a graph does not say which operator set
            it uses.
        steps: Names of the steps to run, None for all. They run in the order of `STEPS`, whatever order is given.
        skip: Names of steps to leave out.
        folder: The folder that the locations of external tensors start from; None is the current one.
        weight_store: Where to put new weights, if not into the graph.

    Returns:
        The changes of each step that ran.

    Raises:
        PreparationError: A name in `steps` or `skip` is unknown; the model is unchanged then.
    """
    chosen = _known(STEPS if steps is None else steps) - _known(skip)
    workpiece = Workpiece(model, folder, weight_store)
    done = []
    for step in STEPS.values():
        if step.name in chosen:
            start = perf_counter()
            changed = step.run(workpiece)
            done.append(PreparationStep(step.name, changed, perf_counter() - start))
            LOG.debug("%s: %d", step.name, changed)
    return done


def step_names(steps: Iterable[str] | None, skip: Iterable[str]) -> list[str]:
    """The steps that `prepare` would run, in its order.

    Raises:
        PreparationError: A name is unknown.
    """
    chosen = _known(STEPS if steps is None else steps) - _known(skip)
    return [name for name in STEPS if name in chosen]


def _known(names: Iterable[str]) -> set[str]:
    if isinstance(names, str):
        names = [names]
    wanted = set(names)
    for name in sorted(wanted - STEPS.keys()):
        raise PreparationError(name, difflib.get_close_matches(name, STEPS, n=3, cutoff=0.6), list(STEPS))
    return wanted
