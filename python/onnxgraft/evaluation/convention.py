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
        element_type: What holds the quantized values. Sums of integers are exact below 2**24 in "float32" and below
            2**53 in "float64".
        centred: Whether a `Conv` that reads the output of a `TesselQuant` itself takes that node's offset out of it
            again. A `Conv` that reads it through another operator never does.
    """

    rounding: bool = False
    element_type: Literal["float32", "float64"] = "float32"
    centred: bool = False

    @property
    def onnx_type(self) -> int:
        """The element type as onnx counts it."""
        return TensorProto.DOUBLE if self.element_type == "float64" else TensorProto.FLOAT

    @property
    def dtype(self) -> np.dtype[Any]:
        """The element type as NumPy has it."""
        return np.dtype(self.element_type)


# As integer hardware does: quantize nodes round and clip, a convolution takes their offset out again.
HARDWARE = Convention(rounding=True, centred=True)
