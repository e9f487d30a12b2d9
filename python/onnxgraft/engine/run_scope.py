"""The settings that last as long as a run: NumPy's global generator and the folder of external data.

The generator belongs to the whole process, so runs take turns: a lock keeps one thread from drawing what another thread
seeded. Code that draws from the generator without this lock is not kept out.
"""

from __future__ import annotations

import os
import threading
from collections.abc import Iterator
from contextlib import contextmanager, nullcontext

import numpy as np

from onnxgraft.transform_utilities import external_data_folder

_turn = threading.RLock()


def _renew() -> None:
    global _turn  # noqa: PLW0603
    _turn = threading.RLock()


# A child process has only one thread, which would wait forever for a lock that another thread of its parent held.
os.register_at_fork(after_in_child=_renew)


@contextmanager
def run_scope(seed: int | None, folder: str | os.PathLike[str] | None) -> Iterator[None]:
    """Seeds the generator, sets the folder, and restores both at the end. Runs of other threads wait.

    Args:
        seed: None uses the generator as it is.
        folder: The folder that the locations of external tensors start from; None leaves it as it is.

    Raises:
        ValueError: The seed is not a whole number from 0 to 2**32 - 1.
    """
    with _turn, nullcontext() if folder is None else external_data_folder(folder):
        if seed is None:
            yield
            return
        state = np.random.get_state(legacy=False)
        try:
            np.random.seed(seed)
            yield
        finally:
            np.random.set_state(state)
