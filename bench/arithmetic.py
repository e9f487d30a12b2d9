"""The library calls that quantizing a Conv cannot do without, in a plain loop: no matching, no splicing, no look-up."""

from __future__ import annotations

import numpy as np
import onnx
from onnx import TensorProto, helper, numpy_helper


def weights_and_biases(graph: onnx.GraphProto) -> list[tuple[onnx.TensorProto, onnx.TensorProto]]:
    """The tensors of each Conv of `graph`, all of which have a bias."""
    tensors = {tensor.name: tensor for tensor in graph.initializer}
    return [(tensors[node.input[1]], tensors[node.input[2]]) for node in graph.node if node.op_type == "Conv"]


def quantize(pairs: list[tuple[onnx.TensorProto, onnx.TensorProto]]) -> None:
    """Makes what quantize nodes, weights, biases and scales are made of, and drops it."""
    for weight, bias in pairs:
        numpy_helper.to_array(weight)  # the precision check reads it too
        shape = numpy_helper.to_array(weight).shape
        numpy_helper.from_array(np.random.randint(-128, 127, size=shape, dtype=np.int8), "weight")
        bias_shape = numpy_helper.to_array(bias).shape
        numpy_helper.from_array(np.random.randint(-18, 13, size=bias_shape, dtype=np.int32), "bias")
        scale = np.random.rand(shape[0]).astype(np.float32).squeeze()
        bits = np.frombuffer(scale.tobytes(), np.uint32)
        words = np.zeros(bits.shape, np.uint64)
        words |= bits.astype(np.uint64)
        helper.make_tensor("scale", TensorProto.UINT64, words.shape, words)
        helper.make_attribute("offset", 0.0)
        helper.make_attribute("scale", 1.0)
