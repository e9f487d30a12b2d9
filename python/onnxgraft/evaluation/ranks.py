"""Ranks of tensors, as far as shape inference knows them."""

from __future__ import annotations

import math

import onnx
from onnx import helper

# Larger initializers cannot be shapes or axes; leaving their values out keeps the model small.
_LARGEST_SHAPE = 1024


def known_ranks(model: onnx.ModelProto) -> dict[str, int]:
    """The rank of every tensor of the graph for which it can be told; `TesselDequant` hands the shape through."""
    outline = _outline(model)
    try:
        graph = onnx.shape_inference.infer_shapes(outline).graph
    except (onnx.shape_inference.InferenceError, RuntimeError):
        graph = outline.graph
    ranks = {tensor.name: len(tensor.dims) for tensor in model.graph.initializer}
    for value in (*graph.input, *graph.value_info, *graph.output):
        if value.type.tensor_type.HasField("shape"):
            ranks[value.name] = len(value.type.tensor_type.shape.dim)
    return ranks


def _outline(model: onnx.ModelProto) -> onnx.ModelProto:
    """The model without large values and with known operators only."""
    outline = onnx.ModelProto(ir_version=model.ir_version)
    outline.opset_import.extend(model.opset_import)
    outline.functions.extend(model.functions)
    graph = outline.graph
    graph.name = model.graph.name
    graph.node.extend(model.graph.node)
    graph.input.extend(model.graph.input)
    graph.output.extend(model.graph.output)
    listed = {value.name for value in graph.input}
    for tensor in model.graph.initializer:
        if math.prod(tensor.dims) <= _LARGEST_SHAPE and tensor.data_location != onnx.TensorProto.EXTERNAL:
            graph.initializer.append(tensor)
        elif tensor.name not in listed:
            graph.input.append(helper.make_tensor_value_info(tensor.name, tensor.data_type, list(tensor.dims)))
    for node in graph.node:
        if node.op_type == "TesselDequant":
            node.op_type, node.domain = "Identity", ""
            del node.input[1:], node.attribute[:]
    return outline
