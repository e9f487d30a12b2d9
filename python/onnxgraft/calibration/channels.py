"""The statistics of one tensor's channels: a small histogram each, from which factors for them can be computed.

The bins are the numbers with 3 bits of mantissa from 2^-16 to 2^16. Smaller numbers count as zero, larger ones as the
largest. A tensor of 500 channels takes 2 MB.
"""

from __future__ import annotations

from typing import Any

import numpy as np
import numpy.typing as npt

from onnxgraft.calibration.histograms import Statistics

Array = npt.NDArray[Any]

_SHIFT = 20  # the upper part of a 32-bit float: sign, 8 bits of exponent, 3 of mantissa
_FIRST = (127 - 16) << 3
_HALF = 32 << 3  # bins of one sign
_LEAST_FACTOR = 1 / 256


class Channels:
    """The extremes of each channel (axis 1) of a tensor, and a histogram of its values if `counts_values`."""

    def __init__(self, count: int, *, counts_values: bool) -> None:
        self.is_finite = True
        self._low, self._high = np.full(count, np.inf), np.full(count, -np.inf)
        self._counts = np.zeros((count, 2 * _HALF), np.int64) if counts_values else None

    def add(self, values: Array) -> None:
        """Adds the values of one sample, float32."""
        others = tuple(axis for axis in range(values.ndim) if axis != 1)
        low, high = values.min(axis=others, initial=np.inf), values.max(axis=others, initial=-np.inf)
        if values.size == 0:
            return
        if not (np.isfinite(low).all() and np.isfinite(high).all()):
            self.is_finite = False
            return
        self._low, self._high = np.minimum(self._low, low), np.maximum(self._high, high)
        if self._counts is not None:
            bits = np.ascontiguousarray(values).view(np.uint32) >> np.uint32(_SHIFT)
            inner = np.clip((bits & np.uint32(0x7FF)).astype(np.int16) - _FIRST, 0, _HALF - 1)
            inner += (bits >> np.uint32(11)).astype(np.int16) * _HALF
            for channel in range(len(self._counts)):
                self._counts[channel] += np.bincount(inner[:, channel].reshape(-1), minlength=2 * _HALF)

    def factors(self, kept: float) -> Array | None:
        """The factor of each channel: above 0, at most 1; None if nothing is known.

        Args:
            kept: The share of a channel's values whose largest magnitude decides its factor, if values are counted.
        """
        if not self.is_finite or np.isinf(self._low).any():
            return None
        largest = np.maximum(np.abs(self._low), np.abs(self._high))
        if self._counts is not None:
            magnitudes = self._counts[:, :_HALF] + self._counts[:, _HALF:]
            below = np.cumsum(magnitudes, axis=1) / np.maximum(magnitudes.sum(axis=1, keepdims=True), 1)
            ends = _edges()[1:][np.argmax(below >= kept, axis=1)]
            largest = np.minimum(largest, ends)
        if not largest.any():
            return None
        return np.asarray(np.maximum(largest / largest.max(), _LEAST_FACTOR), np.float32)

    def divided(self, factors: Array) -> Statistics:
        """All channels together, each divided by its factor."""
        found = Statistics(counts_values=self._counts is not None)
        found.low, found.high = float((self._low / factors).min()), float((self._high / factors).max())
        if self._counts is not None:
            edges = _edges()
            centres = (edges[:-1] + edges[1:]) / 2
            centres[0] = 0.0
            channel, place = np.nonzero(self._counts)
            signs = np.where(place < _HALF, 1, -1)
            values = signs * centres[place % _HALF] / factors[channel]
            found.count(np.clip(values, found.low, found.high), self._counts[channel, place])
        return found


def _edges() -> Array:
    """The edges of the bins of positive numbers; the first one is 0."""
    bits = np.arange(_FIRST, _FIRST + _HALF + 1, dtype=np.uint32) << np.uint32(_SHIFT)
    edges = np.asarray(bits.view(np.float32), np.float64)
    edges[0] = 0.0
    return edges
