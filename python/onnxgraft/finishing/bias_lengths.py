"""Biases of `fuse_bn_quant` -> one element for each channel of their own convolution.

The class draws them in pairs, as many as the first convolution has channels. So an odd number drops one, and a second
convolution of another width gets the length of the first. Missing elements become 0, surplus ones are cut off.
"""

from __future__ import annotations

import numpy as np
from onnx import TensorProto, numpy_helper

from onnxgraft.catalogue import Transformation
from onnxgraft.following import DoneStep
from onnxgraft.quant import FuseQuantBatchNormTransformation

# Weight and bias of each convolution, as the class's replacement calls them.
_CONVOLUTIONS = (("2", "101"), ("8", "103"))


class BringBiasesToLength:
    """Runs after `fuse_bn_quant`."""

    def wants(self, transformation: Transformation) -> bool:
        """It needs to know which biases are new."""
        return issubclass(transformation.cls, FuseQuantBatchNormTransformation)

    def follow(self, step: DoneStep) -> None:
        """Brings each new bias to its length; biases that already have it do not count."""
        tensors = {tensor.name: tensor for tensor in step.graph.initializer}
        changed = 0
        for splice in step.splices_of(FuseQuantBatchNormTransformation):
            for weight_id, bias_id in _CONVOLUTIONS:
                weight, bias = tensors[splice.links[weight_id]], tensors[splice.links[bias_id]]
                if bias.dims[0] != weight.dims[0]:
                    _resize(bias, weight.dims[0])
                    changed += 1
        step.finished += changed
        if changed:
            step.remarks.append("biases adjusted to the number of channels")


def _resize(bias: TensorProto, channels: int) -> None:
    """Changes the record in place: it is new in this step, so that undoing the step removes it."""
    values = np.zeros(channels, np.int32)
    old = numpy_helper.to_array(bias)[:channels]
    values[: old.size] = old
    bias.CopyFrom(numpy_helper.from_array(values, bias.name))
