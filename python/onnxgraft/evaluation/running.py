"""Computes the outputs of a model on given inputs."""

from __future__ import annotations

import importlib
from collections.abc import Mapping, Sequence
from os import PathLike
from typing import Any, Literal

import numpy as np
import numpy.typing as npt
import onnx
from onnx.reference import ReferenceEvaluator

from onnxgraft.evaluation.convention import Convention
from onnxgraft.evaluation.errors import EvaluationError
from onnxgraft.evaluation.lowering import lower

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
        evaluator: onnx's own reference evaluator, or onnxruntime: much faster, to be installed separately, and without
            convolutions in "float64".
        folder: The folder that the locations of external tensors start from.

    Returns:
        The tensors by name. A tensor of quantized values holds them as floating-point numbers.

    Raises:
        EvaluationError: The model cannot be lowered, or the evaluator failed; the message gives its reason.
    """
    lowered = lower(model, convention, folder=folder)
    names = list(outputs) or [value.name for value in lowered.graph.output]
    constants = {tensor.name for tensor in lowered.graph.initializer}
    wanted = {value.name for value in lowered.graph.input} - constants
    if missing := sorted(wanted - inputs.keys()):
        raise EvaluationError(f"no value is given for the graph inputs {', '.join(missing)}")
    feeds = {name: inputs[name] for name in wanted}
    try:
        values = _run_reference(lowered, names, feeds) if evaluator == "reference" else _run_fast(lowered, names, feeds)
    except ImportError as error:
        raise EvaluationError(f"{evaluator} is not installed") from error
    except MemoryError:
        raise
    except Exception as error:
        raise EvaluationError(f"the evaluator failed: {type(error).__name__}: {error}") from error
    return dict(zip(names, values, strict=True))


def _run_reference(lowered: onnx.ModelProto, names: list[str], feeds: dict[str, Array]) -> list[Array]:
    return [np.asarray(value) for value in ReferenceEvaluator(lowered).run(names, feeds)]


def _run_fast(lowered: onnx.ModelProto, names: list[str], feeds: dict[str, Array]) -> list[Array]:
    """Without the optimizations of onnxruntime: they reorder arithmetic."""
    runtime: Any = importlib.import_module("onnxruntime")
    declared = {value.name for value in lowered.graph.output}
    lowered.graph.output.extend(onnx.ValueInfoProto(name=name) for name in names if name not in declared)
    options = runtime.SessionOptions()
    options.graph_optimization_level = runtime.GraphOptimizationLevel.ORT_DISABLE_ALL
    session = runtime.InferenceSession(lowered.SerializeToString(), options, providers=["CPUExecutionProvider"])
    return [np.asarray(value) for value in session.run(names, feeds)]
