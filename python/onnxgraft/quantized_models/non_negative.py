"""Which tensors cannot be negative, from the operators that write them."""

from __future__ import annotations

from collections.abc import Callable, Mapping
from typing import Any

import numpy.typing as npt
import onnx

_NEVER_NEGATIVE = {"Abs", "Exp", "HardSigmoid", "Relu", "Sigmoid", "Softmax", "Softplus", "Sqrt"}
# Not negative if all their operands are not.
_KEEPING = {
    *("Add", "AveragePool", "Concat", "DepthToSpace", "Flatten", "GlobalAveragePool", "GlobalMaxPool", "Identity"),
    *("MaxPool", "Mul", "Reshape", "Slice", "SpaceToDepth", "Split", "Squeeze", "Transpose", "Unsqueeze"),
}
_DATA_FIRST = {"Reshape", "Slice", "Split", "Squeeze", "Unsqueeze"}


class NonNegative:
    """Receives the nodes in order and answers for tensors."""

    def __init__(self, constants: Mapping[str, onnx.TensorProto], value: Callable[[str], npt.NDArray[Any]]) -> None:
        self._constants, self._value = constants, value
        self._known: set[str] = set()

    def __call__(self, name: str) -> bool:
        """Whether the tensor has no negative element, whatever the inputs of the model are."""
        if name in self._constants:
            values = self._value(name)
            return bool(values.size == 0 or values.min() >= 0)
        return name in self._known

    def add(self, node: onnx.NodeProto) -> None:
        """Classifies the node's output."""
        match node.op_type:
            case "Clip":
                result = len(node.input) > 1 and node.input[1] in self._constants and self(node.input[1])
            case operator if operator in _NEVER_NEGATIVE:
                result = True
            case operator if operator in _KEEPING:
                result = all(map(self, node.input[:1] if operator in _DATA_FIRST else node.input))
            case _:
                result = False
        if result:
            self._known.update(node.output)
        else:
            self._known.difference_update(node.output)
