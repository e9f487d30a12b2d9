"""The arithmetic of quantizing a Conv: the part that every tool must compute, and the floor that is only this part.

The calls are those of the library, in its order, so that all tools draw the same numbers from the same seed.
"""

from __future__ import annotations

from collections.abc import Sequence

import numpy as np
import numpy.typing as npt
import onnx
from onnx import TensorProto, helper, numpy_helper

Tensors = list[tuple[onnx.TensorProto, onnx.TensorProto | None]]


def drawn_weight(shape: Sequence[int]) -> npt.NDArray[np.int8]:
    return np.random.randint(-128, 127, size=shape, dtype=np.int8)


def drawn_bias(shape: Sequence[int]) -> npt.NDArray[np.int32]:
    return np.random.randint(-18, 13, size=shape, dtype=np.int32)


def drawn_scales(channels: int) -> npt.NDArray[np.uint64]:
    """One scale per output channel, each the bits of a 32-bit float in the low half of a word."""
    scales = np.random.rand(channels).astype(np.float32).squeeze().ravel()
    return scales.view(np.uint32).astype(np.uint64)


def scale_tensor(name: str, words: npt.NDArray[np.uint64]) -> onnx.TensorProto:
    return helper.make_tensor(name, TensorProto.UINT64, words.shape, words)


def quantize_attributes() -> list[onnx.AttributeProto]:
    """The attributes of a new quantize node."""
    offset = helper.make_attribute("offset", 0.0)
    return [helper.make_attribute("scale", 1.0), offset]


def weights_and_biases(graph: onnx.GraphProto) -> Tensors:
    """The tensors of each Conv of `graph`; None for a missing bias."""
    tensors = {tensor.name: tensor for tensor in graph.initializer}
    inputs = [[*node.input, ""] for node in graph.node if node.op_type == "Conv"]
    return [(tensors[names[1]], tensors.get(names[2])) for names in inputs]


def quantize(pairs: Tensors, kept_in: onnx.GraphProto | None = None) -> None:
    """Floor F3: computes the contents of quantize nodes, weights, biases and scales, and drops them.

    No matching, no splicing, no look-up. The weight is read twice: for its precision, then for its shape.

    Args:
        pairs: The tensors to quantize.
        kept_in: A graph that receives the tensors, so that their memory cannot be reused for the next ones.
    """
    for weight, bias in pairs:
        numpy_helper.to_array(weight)
        quantize_attributes()
        shape = numpy_helper.to_array(weight).shape
        made = [numpy_helper.from_array(drawn_weight(shape), "weight")]
        if bias is not None:
            made.append(numpy_helper.from_array(drawn_bias(numpy_helper.to_array(bias).shape), "bias"))
        made.append(scale_tensor("scale", drawn_scales(shape[0])))
        if kept_in is not None:
            kept_in.initializer.extend(made)
