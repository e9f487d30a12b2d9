"""Where the quantizing transformations put new weights, if not into memory."""

from __future__ import annotations

from typing import Protocol

import onnx


class WeightStore(Protocol):
    """Receives each weight as it is made, so that a model larger than memory can be quantized."""

    def store(self, tensor: onnx.TensorProto) -> onnx.TensorProto:
        """Returns the tensor to put in the graph: of the same name, type and shape, its bytes already in a file."""
        ...
