"""NumPy's global generator for the time of a run.

The generator is one for the whole process, so runs take turns: a lock keeps what one thread draws out of what another
one does. Code that draws from the generator elsewhere is not kept out.
"""

from __future__ import annotations

import os
import threading
from collections.abc import Iterator
from contextlib import contextmanager

import numpy as np

_turn = threading.RLock()


def _renew() -> None:
    global _turn  # noqa: PLW0603
    _turn = threading.RLock()


# A child process has no thread but one, which could wait for ever for a lock that another one held.
os.register_at_fork(after_in_child=_renew)


@contextmanager
def seeded(seed: int | None) -> Iterator[None]:
    """Seeds the generator and puts it back as it was found; without a seed, uses it as it is.

    Runs of other threads wait.

    Raises:
        ValueError: The seed is not a whole number from 0 to 2**32 - 1.
    """
    with _turn:
        if seed is None:
            yield
            return
        state = np.random.get_state(legacy=False)
        try:
            np.random.seed(seed)
            yield
        finally:
            np.random.set_state(state)
