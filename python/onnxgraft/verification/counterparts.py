"""Finds the tensors of one name that mean the same in two models."""

from __future__ import annotations

from collections.abc import Mapping

import onnx

from onnxgraft.tensor_types.quantized_values import INTEGER_OPERATORS

Writers = Mapping[str, onnx.NodeProto]


def writers_of(graph: onnx.GraphProto) -> dict[str, onnx.NodeProto]:
    """The node that writes each tensor."""
    return {name: node for node in graph.node for name in node.output if name}


def is_counterpart(before: onnx.NodeProto, after: onnx.NodeProto) -> bool:
    """Whether the outputs of both nodes mean the same.

    The name alone does not decide: a transformation may let another operator write a tensor of an old name. A quantized
    operator ends in a dequantize node, and a sum of two branches replaces the convolution that was split.
    """
    if after.op_type in {before.op_type, "TesselDequant"}:
        return True
    return before.op_type in INTEGER_OPERATORS and after.op_type == "Add"
