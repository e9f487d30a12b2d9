"""Computes tensors of both models, with onnxruntime if it is installed and can run them."""

from __future__ import annotations

import importlib.util
import logging
import time
from collections.abc import Mapping, Sequence
from dataclasses import dataclass
from os import PathLike
from typing import Any, Literal

import numpy.typing as npt
import onnx

from onnxgraft.evaluation import Convention, EvaluationError, evaluate
from onnxgraft.preparation import prepare

Array = npt.NDArray[Any]
Runner = Literal["onnxruntime", "onnx.reference"]

_log = logging.getLogger(__name__)


@dataclass(frozen=True)
class Side:
    """One of the two models. `label` names it in messages."""

    label: Literal["before", "after"]
    model: onnx.ModelProto
    folder: str | PathLike[str] = ""


class Computer:
    """Computes both models with one evaluator: two would round differently."""

    def __init__(self) -> None:
        self.runner: Runner = "onnxruntime" if importlib.util.find_spec("onnxruntime") else "onnx.reference"
        self.fallback: str | None = None  # why onnxruntime is no longer used

    def compute(
        self, sides: Sequence[Side], names: Sequence[str], convention: Convention, values: Mapping[str, Array]
    ) -> list[dict[str, Array]]:
        """The tensors `names` of both models, on inputs of these values.

        Raises:
            EvaluationError: A model does not run; the message names the model and, if known, the node.
        """
        if self.runner == "onnxruntime":
            try:
                return [self._evaluate(side, values, names, convention) for side in sides]
            except EvaluationError as error:
                _log.info("onnxruntime cannot compute it, onnx.reference is used instead: %s", error)
                self.fallback = str(error)
                self.runner = "onnx.reference"
        return [self._evaluate(side, values, names, convention) for side in sides]

    def _evaluate(
        self, side: Side, values: Mapping[str, Array], names: Sequence[str], convention: Convention
    ) -> dict[str, Array]:
        _log.info("computing the model %s with %s", side.label, self.runner)
        start = time.perf_counter()
        inputs = {value.name for value in side.model.graph.input}
        try:
            result = evaluate(
                side.model,
                {name: value for name, value in values.items() if name in inputs},
                convention,
                outputs=names,
                evaluator="onnxruntime" if self.runner == "onnxruntime" else "reference",
                folder=side.folder,
            )
        except EvaluationError as error:
            raise EvaluationError(f"the model {side.label} does not run: {error}") from error
        _log.info("computed %d tensors in %.1f s", len(names), time.perf_counter() - start)
        return result


def sorted_model(model: onnx.ModelProto) -> onnx.ModelProto:
    """The model, or a copy with its nodes in topological order if they are not."""
    known: set[str] = set()
    written = {name for node in model.graph.node for name in node.output}
    for node in model.graph.node:
        if any(name in written and name not in known for name in node.input):
            copy = onnx.ModelProto()
            copy.CopyFrom(model)
            prepare(copy, ["sort_nodes"])
            return copy
        known.update(node.output)
    return model
