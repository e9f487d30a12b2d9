"""Sounds that are like speech in parts: bursts of voiced tones with formants, pauses, noise; the same in each run."""

from __future__ import annotations

from collections.abc import Iterator
from typing import Any

import numpy as np
import numpy.typing as npt

_RATE = 16000
_CHUNK, _CONTEXT = 512, 64
Array = npt.NDArray[Any]


def sound(number: int, seconds: float = 4.0) -> Array:
    """One recording, float32 from -1 to 1."""
    rng = np.random.default_rng([11, number])
    times = np.arange(int(seconds * _RATE)) / _RATE
    result = rng.normal(0, 0.004, times.size)
    start = 0.2
    while start < seconds - 0.4:
        length = rng.uniform(0.15, 0.6)
        inside = (times >= start) & (times < start + length)
        local = times[inside] - start
        pitch = rng.uniform(90, 220) * (1 + 0.1 * np.sin(2 * np.pi * rng.uniform(2, 5) * local))
        phase = 2 * np.pi * np.cumsum(pitch) / _RATE
        formants = rng.uniform((300, 900, 2200), (800, 2000, 3000))
        voice = np.zeros(local.size)
        for harmonic in range(1, 30):
            strength = sum(1 / (1 + ((harmonic * pitch.mean() - formant) / 90) ** 2) for formant in formants)
            voice += strength / harmonic**0.3 * np.sin(harmonic * phase)
        result[inside] += 0.12 * voice * np.sin(np.pi * local / length) ** 0.5
        start += length + rng.uniform(0.05, 0.5)
    return np.clip(result, -1, 1).astype(np.float32)


def chunks(samples: Array) -> Iterator[Array]:
    """[1, 576]: 512 samples each, after the last 64 of the one before."""
    padded = np.concatenate([np.zeros(_CONTEXT, np.float32), samples])
    for start in range(0, len(samples) - _CHUNK + 1, _CHUNK):
        yield padded[None, start : start + _CHUNK + _CONTEXT]
