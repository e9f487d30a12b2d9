"""Accumulates signal and noise of one tensor over samples."""

from __future__ import annotations

import math
from dataclasses import dataclass
from typing import Any

import numpy as np
import numpy.typing as npt

from onnxgraft.verification.accuracy import TensorAccuracy

Array = npt.NDArray[Any]


@dataclass
class Noise:
    """The sums over one tensor so far. Elements that are not finite in the model before are left out of all sums."""

    signal: float = 0.0
    noise: float = 0.0
    max_error: float = 0.0
    scale: float = 0.0
    elements: int = 0

    def add(self, before: Array, after: Array) -> None:
        """Adds one sample."""
        if before.shape != after.shape:
            self.noise = self.max_error = math.inf
            self.elements += before.size
            return
        first, second = (np.asarray(values, np.float64) for values in (before, after))
        finite = np.isfinite(first)
        self.elements += int(finite.sum())
        with np.errstate(invalid="ignore", over="ignore"):
            error = np.where(finite, first - second, 0.0)
            error[np.isnan(error)] = np.inf
            signal = np.where(finite, first, 0.0)
            self.signal += float(np.square(signal).sum())
            self.noise += float(np.square(error).sum())
        self.max_error = max(self.max_error, float(np.abs(error).max(initial=0.0)))
        self.scale = max(self.scale, float(np.abs(signal).max(initial=0.0)))

    @property
    def sqnr(self) -> float:
        """In dB."""
        if not self.elements:
            return math.nan
        if self.noise == 0:
            return math.inf
        return 10 * math.log10(self.signal / self.noise) if self.signal and math.isfinite(self.noise) else -math.inf

    def row(self, name: str, writer: str) -> TensorAccuracy:
        """The result."""
        return TensorAccuracy(name, writer, self.sqnr, self.sqnr == math.inf, self.max_error, self.scale)
