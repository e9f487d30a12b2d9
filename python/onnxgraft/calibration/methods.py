"""How a range is chosen from the statistics of a tensor."""

from __future__ import annotations

from collections.abc import Callable
from typing import Any

import numpy as np
import numpy.typing as npt

from onnxgraft.calibration.calibration import Range
from onnxgraft.calibration.histograms import Statistics
from onnxgraft.errors import CalibrationError

Array = npt.NDArray[Any]

METHODS = ("min-max", "percentile", "mse")
_STEPS = 255  # between the 256 numbers of 8 bits
_FRACTIONS = np.linspace(1.0, 0.2, 81)
_ROUNDS = 2


def chooser(method: str, percentile: float) -> tuple[str, Callable[[Statistics], Range]]:
    """The name of the method in a calibration, and its function.

    Raises:
        CalibrationError: There is no such method, or the percentile is out of range.
    """
    match method:
        case "min-max":
            return "min-max", lambda seen: Range(seen.low, seen.high)
        case "percentile":
            if not 50 < percentile <= 100:
                raise CalibrationError(f"the percentile must be above 50 and at most 100, not {percentile:g}")
            return f"percentile {percentile:g}", lambda seen: _inner_part(seen, percentile / 100)
        case "mse":
            return "mean-square error", _least_error
        case _:
            raise CalibrationError(f"there is no method '{method}': {', '.join(METHODS)}")


def _inner_part(seen: Statistics, share: float) -> Range:
    """The range that leaves (1 - share) / 2 of the values out at each end; values are spread evenly within a bin."""
    lower, upper, counts = seen.histogram()
    below = np.concatenate([[0], np.cumsum(counts)]) / counts.sum()
    # Each bin by its two ends: between bins there are no values.
    shares, edges = np.stack([below[:-1], below[1:]], 1).reshape(-1), np.stack([lower, upper], 1).reshape(-1)
    rest = (1 - share) / 2
    low, high = np.interp([rest, 1 - rest], shares, edges)
    return Range(float(low), float(high))


def _least_error(seen: Statistics) -> Range:
    """The range with the least mean square error of 8 bits: rounding within, clipping beyond.

    The ends move inwards one after the other, each to a share of the extreme that it started with.
    """
    if seen.low == seen.high:
        return Range(seen.low, seen.high)
    lower, upper, counts = seen.histogram()
    bins = ((lower + upper) / 2, (upper - lower) ** 2 / 12, counts.astype(np.float64))
    # Zero is always one of the numbers, so the range must contain it.
    widest = (min(seen.low, 0.0), max(seen.high, 0.0))
    low, high = widest
    for _ in range(_ROUNDS):
        high = min((widest[1] * share for share in _FRACTIONS), key=lambda end: _error(bins, low, end))
        low = min((widest[0] * share for share in _FRACTIONS), key=lambda end: _error(bins, end, high))
    return Range(float(low) if seen.low < 0 else seen.low, float(high) if seen.high > 0 else seen.high)


def _error(bins: tuple[Array, Array, Array], low: float, high: float) -> float:
    """The sum of squares over all values of bins: centres, mean squares around them, counts."""
    centres, spreads, counts = bins
    step = (high - low) / _STEPS
    if step <= 0:
        return float("inf")
    rounded = np.rint(centres / step) * step
    # Values that are spread wider than a step are rounded by step**2 / 12 in the mean.
    rounding = np.where(spreads * 12 >= step**2, step**2 / 12, (centres - rounded) ** 2 + spreads)
    beyond = centres - np.clip(centres, low, high)
    return float(np.dot(counts, np.where(beyond == 0, rounding, beyond**2 + spreads)))
