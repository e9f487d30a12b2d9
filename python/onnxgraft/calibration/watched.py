"""Which tensors of a model are looked at while it is calibrated, and how large they are."""

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
_CONVOLUTIONS = {"Conv", "ConvTranspose"}
_PRODUCTS = {"Gemm", "MatMul"}
_BYTES = 4


@dataclass
class Watched:
    """What is looked at.

    Attributes:
        inputs: Graph inputs.
        computed: Tensors that nodes write, in order, with an estimate of their bytes.
        aliases: Tensors with the values of another one that is looked at.
        channel_axes: Tensors at convolutions and matrix products: the axis of their channels.
    """

    inputs: list[str] = field(default_factory=list)
    computed: dict[str, int] = field(default_factory=dict)
    aliases: dict[str, str] = field(default_factory=dict)
    channel_axes: dict[str, int] = field(default_factory=dict)


def watched_tensors(model: onnx.ModelProto, sample: Mapping[str, npt.NDArray[Any]], folder: str) -> Watched:
    """Chooses the tensors of a sorted model; `sample` tells the sizes of its inputs."""
    graph = model.graph
    constants = {tensor.name for tensor in graph.initializer}
    found = Watched(inputs=list(sample), channel_axes=_channel_axes(graph, constants))
    values = _values(model, sample, folder)
    largest = 0
    for node in graph.node:
        for position, name in enumerate(node.output):
            if not name or not _may_be_float(values.get(name)):
                continue
            source = node.input[0] if node.op_type in _VIEWS and position == 0 else ""
            if source in found.computed or source in found.aliases or source in sample:
                if name not in found.channel_axes:
                    found.aliases[name] = found.aliases.get(source, source)
                    continue
            elif source in constants:
                continue
            largest = max(largest, _size(values.get(name)))
            found.computed[name] = _size(values.get(name)) or largest
    return found


def _channel_axes(graph: onnx.GraphProto, constants: set[str]) -> dict[str, int]:
    axes: dict[str, int] = {}
    for kinds, axis in ((_PRODUCTS, -1), (_CONVOLUTIONS, 1)):
        for node in graph.node:
            if node.op_type in kinds:
                axes.update({name: axis for name in [*node.input[:2], *node.output] if name not in constants})
    return axes


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
