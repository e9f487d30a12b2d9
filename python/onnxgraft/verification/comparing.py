"""How two values of one tensor are compared: integers exactly, floating-point numbers relative to their scale.

Elements that are both NaN, or the same infinity, are equal, but a tensor without any finite element never passes. If
one element is finite and the other is not, the difference is infinite.
"""

from __future__ import annotations

import math
from collections.abc import Iterable
from dataclasses import replace
from typing import Any

import numpy as np
import numpy.typing as npt

from onnxgraft.verification.result import OutputRow

Array = npt.NDArray[Any]

# Allows for sums in another order, in networks of hundreds of layers.
DEFAULT_TOLERANCE = 1e-4
_STEPS = 16  # of a narrow floating-point type, whose resolution is coarser than the tolerance


def compare(name: str, before: Array, after: Array, tolerance: float | None) -> OutputRow:
    """The row of one tensor."""
    error, scale = _difference(before, after)
    relative = 0.0 if error == 0 else error / scale if scale and math.isfinite(error) else math.inf
    dtype = before.dtype.name if before.dtype == after.dtype else f"{before.dtype.name} / {after.dtype.name}"
    agrees = before.dtype == after.dtype and relative <= _bound(before.dtype, tolerance)
    compared = not (agrees and _is_lost(before))
    return OutputRow(name, dtype, before.shape, error, scale, relative, agrees and compared, compared)


def worst(rows: Iterable[OutputRow]) -> OutputRow:
    """One row for several runs of the same output."""
    rows = list(rows)
    chosen = max(rows, key=lambda row: (row.compared and not row.passed, row.relative_error))
    # A difference in one run counts, whatever the other runs found.
    differs, passed = chosen.compared and not chosen.passed, all(row.passed for row in rows)
    return replace(chosen, passed=passed, compared=differs or all(row.compared for row in rows))


def _bound(dtype: np.dtype[Any], tolerance: float | None) -> float:
    if not _is_floating(dtype):
        return 0.0
    if tolerance is not None:
        return tolerance
    step = float(np.finfo(dtype).eps) if dtype.kind == "f" else 2.0**-7  # bfloat16
    return max(DEFAULT_TOLERANCE, _STEPS * step)


def _is_floating(dtype: np.dtype[Any]) -> bool:
    return dtype.kind == "f" or dtype.name == "bfloat16"


def _difference(before: Array, after: Array) -> tuple[float, float]:
    """The largest absolute difference and the scale."""
    scale = max(_scale(before), _scale(after))
    if before.shape != after.shape:
        return math.inf, scale
    if np.array_equal(before, after):
        return 0.0, scale
    if not (_is_number(before.dtype) and _is_number(after.dtype)):  # strings, complex numbers
        return math.inf, scale
    first, second = before.astype(np.float64), after.astype(np.float64)
    same = (first == second) | (np.isnan(first) & np.isnan(second))
    with np.errstate(invalid="ignore"):
        distance = np.where(same, 0.0, np.abs(first - second))
    error = float(np.where(np.isnan(distance), np.inf, distance).max())
    # Integers that differ beyond the 53 bits of a double still differ.
    return error if _is_floating(before.dtype) else max(error, 1.0), scale


def _is_lost(values: Array) -> bool:
    """Whether there is no finite element to compare."""
    return bool(values.size) and _is_floating(values.dtype) and not np.isfinite(values).any()


def _is_number(dtype: np.dtype[Any]) -> bool:
    return dtype.kind in "biu" or _is_floating(dtype)


def _scale(values: Array) -> float:
    if not _is_number(values.dtype):
        return 0.0
    absolute = np.abs(values.astype(np.float64))
    return float(np.max(absolute, where=np.isfinite(absolute), initial=0.0))
