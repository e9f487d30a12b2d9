"""NumPy's global generator for the time of a run."""

from __future__ import annotations

from collections.abc import Iterator
from contextlib import contextmanager

import numpy as np


@contextmanager
def seeded(seed: int | None) -> Iterator[None]:
    """Seeds the generator and puts it back as it was found; does nothing without a seed.

    Raises:
        ValueError: The seed is not a whole number from 0 to 2**32 - 1.
    """
    if seed is None:
        yield
        return
    state = np.random.get_state(legacy=False)
    try:
        np.random.seed(seed)
        yield
    finally:
        np.random.set_state(state)
