"""Scale and offset of a quantize node, from the range of the tensor that it reads."""

from __future__ import annotations

from dataclasses import dataclass

import numpy as np

LOWEST, HIGHEST = -128, 127
# Ranges narrower than this count as always zero: their scale would not be a finite 32-bit float with room to spare.
_NARROWEST = 1e-30
_SCALE_OF_NOTHING = 127.0


@dataclass(frozen=True)
class Activation:
    """The parameters of one quantize node: q = clip(round(x * scale + offset), -128, 127).

    Attributes:
        scale: Quantized steps per unit, a value that a 32-bit float holds exactly.
        offset: The quantized value of 0.0, a whole number from -128 to 127.
    """

    scale: float
    offset: int = 0

    @property
    def step(self) -> float:
        """The distance of two neighbouring quantized values in the float tensor: 1 / scale."""
        return 1.0 / self.scale


def activation_of(low: float, high: float, *, symmetric: bool = False) -> Activation:
    """The parameters for values from `low` to `high`.

    The range is widened to contain 0, which padding and Relu produce and which is then quantized without error:

        asymmetric: scale = 255 / (high - low), offset = round(-128 - low * scale)
        symmetric:  scale = 127 / max(-low, high), offset = 0

    A tensor that is always zero (or narrower than 1e-30) gets scale 127 and offset 0: room for -1 to 1.

    Raises:
        ValueError: A bound is not finite, or `low` is above `high`.
    """
    if not (np.isfinite(low) and np.isfinite(high)):
        raise ValueError(f"its range {low:g} .. {high:g} is not finite")
    if low > high:
        raise ValueError(f"its range {low:g} .. {high:g} is reversed")
    low, high = min(float(low), 0.0), max(float(high), 0.0)
    width = 2 * max(-low, high) if symmetric else high - low
    if width < _NARROWEST:
        return Activation(_SCALE_OF_NOTHING)
    scale = float(np.float32((HIGHEST - LOWEST - symmetric) / width))
    if symmetric:
        return Activation(scale)
    return Activation(scale, int(np.clip(np.rint(LOWEST - low * scale), LOWEST, HIGHEST)))
