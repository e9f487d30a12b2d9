"""Float weights after `change_gap_conv` -> the floating-point type of the tensor that they are computed with.

The class writes float32. In a float16 model the convolutions read float16, and no operator takes both.
"""

from __future__ import annotations

import numpy as np
from onnx import TensorProto, helper, numpy_helper

from onnxgraft.catalogue import Transformation
from onnxgraft.following import DoneStep
from onnxgraft.quant import ChangeGAPCONVTransformation
from onnxgraft.tensor_types import FLOATING

# The input of both convolutions, and their weights and biases, as the class's replacements call them.
_INPUT, _OPERANDS = "1", ("100", "101", "102", "103")


class MatchFloatWidths:
    """Runs after `change_gap_conv`."""

    def wants(self, transformation: Transformation) -> bool:
        """It needs to know which weights are new."""
        return issubclass(transformation.cls, ChangeGAPCONVTransformation)

    def follow(self, step: DoneStep) -> None:
        """Casts the new weights and biases if the input is known to be of another floating-point type."""
        splices = step.splices_of(ChangeGAPCONVTransformation)
        if not splices:
            return
        types = step.tensor_types()
        tensors = {tensor.name: tensor for tensor in step.graph.initializer}
        changed = 0
        for splice in splices:
            kind = types.get(splice.links[_INPUT])
            if kind is None or kind.element_type not in FLOATING - {TensorProto.FLOAT}:
                continue
            dtype = helper.tensor_dtype_to_np_dtype(kind.element_type)
            for tensor in (tensors[splice.links[operand]] for operand in _OPERANDS):
                # New in this step, so undoing the step removes the record that changes here.
                values = np.asarray(numpy_helper.to_array(tensor)).astype(dtype)
                tensor.CopyFrom(numpy_helper.from_array(values, tensor.name))
                changed += 1
        step.finished += changed
        if changed:
            step.remarks.append("new weights and biases in the floating-point type of the model")
