"""The common part of both kinds of lowering: which models they accept, and what they remove."""

from __future__ import annotations

import math
from collections.abc import Iterable, Mapping
from itertools import islice
from typing import Any

import numpy as np
import numpy.typing as npt
import onnx
from onnx import TensorProto, numpy_helper
from onnx.checker import ValidationError
from onnx.external_data_helper import load_external_data_for_tensor, uses_external_data

from onnxgraft.errors import EvaluationError
from onnxgraft.evaluation.operator_formulas import label
from onnxgraft.graph.bodies import with_bodies

Array = npt.NDArray[Any]

OWN_OPERATORS = ("TesselQuant", "TesselDequant")
_LARGEST_SHAPE = 1024  # elements
_OLDEST_OPERATOR_SET = 11  # of Round and of Clip with bounds as inputs


def versions(model: onnx.ModelProto) -> dict[str, int]:
    """Operator set version by domain, "" for the standard one."""
    return {"" if entry.domain == "ai.onnx" else entry.domain: entry.version for entry in model.opset_import}


def check(graph: onnx.GraphProto, opsets: Mapping[str, int]) -> None:
    """Raises EvaluationError for a model that cannot be lowered."""
    version = opsets.get("", 0)
    if version < _OLDEST_OPERATOR_SET:
        raise EvaluationError(f"operator set {version} is too old to evaluate: {_OLDEST_OPERATOR_SET} is needed")
    for body in islice(with_bodies(graph), 1, None):
        for node in body.node:
            if node.op_type in OWN_OPERATORS:
                raise EvaluationError(f"{label(node)} is inside a nested body, where it cannot be evaluated")


def take_in_small_tensors(graph: onnx.GraphProto, folder: str) -> None:
    """Loads shapes, axes and bounds from their files into the graph: onnxruntime does not look for them elsewhere."""
    for tensor in graph.initializer:
        if uses_external_data(tensor) and math.prod(tensor.dims) <= _LARGEST_SHAPE:
            values_of(tensor, folder)  # reports a broken file
            load_external_data_for_tensor(tensor, folder)
            tensor.data_location = TensorProto.DEFAULT
            del tensor.external_data[:]


def drop_unread(graph: onnx.GraphProto, names: Iterable[str]) -> None:
    """Removes those of the initializers that no longer have a reader, and their entries among the inputs."""
    used: set[str] = set()
    for current in with_bodies(graph):
        used.update(value.name for value in current.output)
        for node in current.node:
            used.update(node.input)
    gone = set(names) - used
    for field in (graph.initializer, graph.input):
        for index in reversed(range(len(field))):
            if field[index].name in gone:
                del field[index]


def values_of(tensor: TensorProto, folder: str) -> Array:
    """The values of a tensor.

    Raises:
        EvaluationError: They do not fit its shape or type, or cannot be read.
    """
    try:
        return np.asarray(numpy_helper.to_array(tensor, folder))
    except (ValueError, TypeError, KeyError, OSError, ValidationError) as error:
        reason = " ".join(str(error).split())
        raise EvaluationError(f"the values of the initializer '{tensor.name}' cannot be read: {reason}") from error
