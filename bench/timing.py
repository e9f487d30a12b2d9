"""Measuring two things against each other, in processor time: what else runs on the machine counts less."""

from __future__ import annotations

import gc
import time
from collections.abc import Callable
from dataclasses import dataclass

Work = Callable[[], object]
_PATIENCE = 10.0


@dataclass(frozen=True)
class Ratio:
    """Seconds of one thing over seconds of another, and what the quotient should not exceed."""

    name: str
    seconds: float
    floor_seconds: float
    aim: float

    @property
    def value(self) -> float:
        """The quotient."""
        return self.seconds / self.floor_seconds


def compare(
    name: str, aim: float, prepare: Callable[[], Work], prepare_floor: Callable[[], Work], rounds: int
) -> Ratio:
    """Runs both in turn, up to `rounds` times, and takes the fastest of each, which is the least disturbed one.

    Args:
        name: What the ratio says.
        aim: The largest good value.
        prepare: Makes a call of the thing measured; its own time does not count.
        prepare_floor: The same for what it is divided by.
        rounds: How often; fewer if that would take longer than about ten seconds.
    """
    fastest = [float("inf"), float("inf")]
    end = time.monotonic() + _PATIENCE
    for _ in range(rounds):
        if time.monotonic() > end:
            break
        for index, make in enumerate((prepare, prepare_floor)):
            work = make()
            gc.collect()
            gc.disable()
            begin = time.process_time()
            work()
            fastest[index] = min(fastest[index], time.process_time() - begin)
            gc.enable()
    return Ratio(name, fastest[0], fastest[1], aim)
