"""How the quantized operators are read when a model is evaluated."""

from __future__ import annotations

from dataclasses import dataclass
from typing import Any, Literal

import numpy as np
from onnx import TensorProto


@dataclass(frozen=True)
class Convention:
    """How the quantized operators are read.

    Attributes:
        rounding: Whether a quantize node rounds (half to even) and clips to -128 .. 127, or only multiplies and adds.
        element_type: The type that holds the quantized values. Sums of integers are exact below 2**24 in "float32" and
            below 2**53 in "float64".
        centred: Whether a `Conv` that reads the output of a `TesselQuant` directly subtracts that node's offset again.
            A `Conv` that reads it through another operator never does.
    """

    rounding: bool = False
    element_type: Literal["float32", "float64"] = "float32"
    centred: bool = False

    @property
    def onnx_type(self) -> int:
        """The element type as an onnx number."""
        return TensorProto.DOUBLE if self.element_type == "float64" else TensorProto.FLOAT

    @property
    def dtype(self) -> np.dtype[Any]:
        """The element type as a NumPy type."""
        return np.dtype(self.element_type)


# As in integer hardware: quantize nodes round and clip, a convolution subtracts their offset.
HARDWARE = Convention(rounding=True, centred=True)
