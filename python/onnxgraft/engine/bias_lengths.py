"""Says in words why a bias could not be corrected: it is shorter than its convolution has channels."""

from __future__ import annotations

import onnx

from onnxgraft.catalogue import Transformation
from onnxgraft.quant import AbstractPullUpTesselQuantTransformation


def explanation(row: Transformation, graph: onnx.GraphProto, raised: Exception) -> str:
    """What to do about a pull-up that failed on such a bias; empty for any other failure."""
    if not isinstance(raised, ValueError) or not issubclass(row.cls, AbstractPullUpTesselQuantTransformation):
        return ""
    sizes = {tensor.name: tensor.dims for tensor in graph.initializer}
    for node in graph.node:
        if node.op_type == "Conv" and len(node.input) == 3:
            weight, bias = (sizes.get(name) for name in node.input[1:])
            if weight and bias and f"({bias[0]},) ({weight[0]},)" in str(raised):  # as NumPy puts it
                return (
                    f" (a bias of {bias[0]} elements for {weight[0]} output channels: fuse_bn_quant leaves it so for "
                    "an odd number; --skip fuse_bn_quant leaves that transformation out, --keep-going this one)"
                )
    return ""
