"""Computes the outputs of a model on given inputs."""

from __future__ import annotations

from collections.abc import Mapping, Sequence
from os import PathLike, fspath
from typing import Any, Literal

import numpy.typing as npt
import onnx

from onnxgraft.errors import EvaluationError
from onnxgraft.evaluation import runners
from onnxgraft.evaluation.convention import Convention
from onnxgraft.evaluation.lowering import lower
from onnxgraft.evaluation.operator_formulas import label

Array = npt.NDArray[Any]


def evaluate(
    model: onnx.ModelProto,
    inputs: Mapping[str, Array],
    convention: Convention | None = None,
    *,
    outputs: Sequence[str] = (),
    evaluator: Literal["reference", "onnxruntime"] = "reference",
    folder: str | PathLike[str] = "",
) -> dict[str, Array]:
    """Lowers a copy of `model` and computes it.

    Args:
        model: The model; it is not changed.
        inputs: A value for each graph input without initializer, in the element type and shape that it declares.
        convention: How the quantized operators are read; None for the defaults.
        outputs: Names of tensors to compute; empty for the graph's outputs.
        evaluator: onnx's own reference evaluator, or onnxruntime: much faster, installed separately, and without
            convolutions in "float64".
        folder: The folder that the locations of external tensors start from.

    Returns:
        The tensors by name. A tensor of quantized values holds them as floating-point numbers.

    Raises:
        EvaluationError: The model cannot be lowered, or the evaluator failed; the message names the node, if it is
            known, and gives the reason.
    """
    lowered = lower(model, convention, folder=folder)
    names = list(outputs) or [value.name for value in lowered.graph.output]
    constants = {tensor.name for tensor in lowered.graph.initializer}
    wanted = {value.name for value in lowered.graph.input} - constants
    if missing := sorted(wanted - inputs.keys()):
        raise EvaluationError(f"no value is given for the graph inputs {', '.join(missing)}")
    _check_order(lowered.graph)
    feeds = {name: inputs[name] for name in wanted}
    run = runners.run_reference if evaluator == "reference" else runners.run_onnxruntime
    return dict(zip(names, run(lowered, names, feeds, fspath(folder)), strict=True))


def _check_order(graph: onnx.GraphProto) -> None:
    """Raises EvaluationError for the first node that reads a tensor before it exists."""
    later = {name for node in graph.node for name in node.output}
    known = {tensor.name for tensor in graph.initializer} | {tensor.values.name for tensor in graph.sparse_initializer}
    known |= {value.name for value in graph.input} | {""}
    for node in graph.node:
        for name in node.input:
            if name not in known:
                reason = "a later node writes: `prepare` sorts them" if name in later else "nothing writes"
                raise EvaluationError(f"{label(node)} reads '{name}', which {reason}")
        known.update(node.output)
