"""The statistics of one tensor's values over any number of samples, in constant memory.

The bins are the numbers with 7 bits of mantissa: the upper half of a 32-bit float is the number of its bin. So each bin
is at most 1/128 of its value wide, from the smallest number to the largest, and the bins fit however far a range grows.
"""

from __future__ import annotations

from typing import Any

import numpy as np
import numpy.typing as npt

Array = npt.NDArray[Any]

_BINS = 1 << 16
_SIGN = 1 << 15
_BLOCK = 1 << 18  # values that are counted while they are in the cache
_UPPER_HALF = 1 if np.little_endian else 0


class Statistics:
    """The extremes of a tensor, and a histogram of its values if `counts_values`."""

    def __init__(self, *, counts_values: bool) -> None:
        self.low, self.high = np.inf, -np.inf
        self.is_finite = True
        self._counts = np.zeros(_BINS, np.int64) if counts_values else None

    @property
    def is_empty(self) -> bool:
        """Whether no value was seen."""
        return self.is_finite and self.low > self.high

    def add(self, values: Array) -> None:
        """Adds the values of one sample, float32."""
        if values.size == 0:
            return
        low, high = float(values.min()), float(values.max())
        if not (np.isfinite(low) and np.isfinite(high)):
            self.is_finite = False
            return
        self.low, self.high = min(self.low, low), max(self.high, high)
        if self._counts is not None:
            halves = np.ascontiguousarray(values).reshape(-1).view(np.uint16)[_UPPER_HALF::2]
            for start in range(0, halves.size, _BLOCK):
                self._counts += np.bincount(halves[start : start + _BLOCK], minlength=_BINS)

    def count(self, values: Array, counts: Array) -> None:
        """Adds values that lie between the extremes already known, each as often as `counts` says."""
        assert self._counts is not None
        bins = np.ascontiguousarray(values, np.float32).view(np.uint16)[_UPPER_HALF::2]
        self._counts += np.bincount(bins, counts, minlength=_BINS).astype(np.int64)

    def share_outside(self, low: float, high: float) -> float:
        """The share of the values below `low` or above `high`, 0 to 1; values are spread evenly within a bin."""
        if low <= self.low and high >= self.high:
            return 0.0
        lower, upper, counts = self.histogram()
        width = np.where(upper > lower, upper - lower, 1.0)
        below = np.where(upper > lower, np.clip((low - lower) / width, 0, 1), lower < low)
        above = np.where(upper > lower, np.clip((upper - high) / width, 0, 1), lower > high)
        return float(np.dot(np.minimum(below + above, 1), counts) / counts.sum())

    def histogram(self) -> tuple[Array, Array, Array]:
        """The bins that have values, in order: lower edges, upper edges, counts."""
        if self._counts is None:
            raise ValueError("values were not counted")
        used = np.flatnonzero(self._counts)
        used = np.concatenate([used[used >= _SIGN][::-1], used[used < _SIGN]])
        # Within one sign the edge that is nearer to zero is the bin itself.
        bits = used.astype(np.uint32)
        inner = (bits << np.uint32(16)).view(np.float32).astype(np.float64)
        with np.errstate(over="ignore"):
            outer = ((bits + np.uint32(1)) << np.uint32(16)).view(np.float32).astype(np.float64)
        outer[used % _SIGN == 0] = 0.0  # numbers next to zero are zero
        lower, upper = np.where(used >= _SIGN, outer, inner), np.where(used >= _SIGN, inner, outer)
        return np.clip(lower, self.low, self.high), np.clip(upper, self.low, self.high), self._counts[used]
