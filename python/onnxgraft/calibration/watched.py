"""The tensors of a model that are watched during calibration, and their sizes."""

from __future__ import annotations

import math
from collections.abc import Mapping
from dataclasses import dataclass, field
from typing import Any

import numpy.typing as npt
import onnx

from onnxgraft.preparation.type_inference import inferred_values

_FLOATS = {
    onnx.TensorProto.FLOAT,
    onnx.TensorProto.FLOAT16,
    onnx.TensorProto.DOUBLE,
    onnx.TensorProto.BFLOAT16,
}
# Their output has the values of their first input.
_VIEWS = {"Dropout", "Flatten", "Identity", "Reshape", "Squeeze", "Transpose", "Unsqueeze"}
# Operators that can compute on quantized values, and which of their operands are not weights.
_QUANTIZABLE = {"Conv": 1, "ConvTranspose": 1, "Gemm": 2, "MatMul": 2}
_BYTES = 4


@dataclass
class Watched:
    """The watched tensors.

    Attributes:
        inputs: Graph inputs.
        computed: Tensors that nodes write, in order, with an estimate of their bytes.
        aliases: Tensors with the values of another watched tensor.
    """

    inputs: list[str] = field(default_factory=list)
    computed: dict[str, int] = field(default_factory=dict)
    aliases: dict[str, str] = field(default_factory=dict)


def watched_tensors(
    model: onnx.ModelProto, sample: Mapping[str, npt.NDArray[Any]], folder: str, *, everything: bool
) -> Watched:
    """Chooses the tensors of a sorted model.

    Args:
        model: The model.
        sample: Shows the sizes of its inputs.
        folder: The folder that the locations of external tensors start from.
        everything: Whether to watch all tensors, not only the inputs of quantized operators.
    """
    graph = model.graph
    constants = {tensor.name for tensor in graph.initializer}
    wanted = {name for node in graph.node for name in node.input[: _QUANTIZABLE.get(node.op_type, 0)]}
    wanted |= {value.name for value in graph.output}
    found = Watched(inputs=list(sample))
    values = _values(model, sample, folder)
    sources: dict[str, str] = {}  # tensor -> the one with the same values that is computed first
    largest = 0
    for node in graph.node:
        source = node.input[0] if node.op_type in _VIEWS and node.input else ""
        for position, name in enumerate(node.output):
            sources[name] = sources.get(source, source) if source and position == 0 else name
            if not name or source in constants or not _may_be_float(values.get(name)):
                continue
            if not everything and name not in wanted:
                continue
            origin = sources[name]
            if origin not in sample and origin not in found.computed:
                largest = max(largest, _size(values.get(origin)))
                found.computed[origin] = _size(values.get(origin)) or largest
            if origin != name:
                found.aliases[name] = origin
    return found


def _values(
    model: onnx.ModelProto, sample: Mapping[str, npt.NDArray[Any]], folder: str
) -> dict[str, onnx.ValueInfoProto]:
    """Types and shapes of the tensors, inferred for the sizes of a sample."""
    declared = [onnx.ValueInfoProto.FromString(value.SerializeToString()) for value in model.graph.input]
    for value in model.graph.input:
        if value.name in sample:
            shape = value.type.tensor_type.shape
            del shape.dim[:]
            shape.dim.extend(onnx.TensorShapeProto.Dimension(dim_value=size) for size in sample[value.name].shape)
    try:
        inferred = [*inferred_values(model, folder), *model.graph.output]
    finally:
        del model.graph.input[:]
        model.graph.input.extend(declared)
    return {value.name: value for value in inferred}


def _may_be_float(value: onnx.ValueInfoProto | None) -> bool:
    if value is None or not value.type.WhichOneof("value"):
        return True
    return value.type.WhichOneof("value") == "tensor_type" and value.type.tensor_type.elem_type in {*_FLOATS, 0}


def _size(value: onnx.ValueInfoProto | None) -> int:
    """Bytes of a tensor; 0 if its shape is not known."""
    if value is None or not value.type.tensor_type.HasField("shape"):
        return 0
    return _BYTES * math.prod(int(dim.dim_value) for dim in value.type.tensor_type.shape.dim)
