"""Measures things against each other in processor time, so that other programs on the machine count less."""

from __future__ import annotations

import gc
import time
from collections.abc import Callable, Mapping

from bench.figures import Figure

Work = Callable[[], object]
Prepare = Callable[[], Work]
_PATIENCE = 10.0


def fastest(contenders: Mapping[str, Prepare], rounds: int, patience: float = _PATIENCE) -> dict[str, float]:
    """Runs all of them alternating, up to `rounds` times, and takes the fastest run of each, the least disturbed one.

    Args:
        contenders: By name, a function that prepares a call of the thing measured; preparing does not count.
        rounds: How often; fewer if that would take longer than `patience`, but once at least.
        patience: Seconds after which no further round starts.

    Returns:
        Seconds of processor time by name.
    """
    seconds = dict.fromkeys(contenders, float("inf"))
    end = time.monotonic() + patience
    for done in range(rounds):
        if done and time.monotonic() > end:
            break
        for name, prepare in contenders.items():
            seconds[name] = min(seconds[name], _once(prepare()))
    return seconds


def _once(work: Work) -> float:
    gc.collect()
    gc.disable()
    try:
        begin = time.process_time()
        work()
        return time.process_time() - begin
    finally:
        gc.enable()


def compare(name: str, aim: float | None, prepare: Prepare, prepare_floor: Prepare, rounds: int) -> Figure:
    """Seconds of one thing over seconds of another.

    Args:
        name: The title of the figure.
        aim: The largest good value, if there is one.
        prepare: Makes a call of the thing measured; its own time does not count.
        prepare_floor: The same for the divisor.
        rounds: How often; fewer if that would take longer than about ten seconds.
    """
    seconds = fastest({"measured": prepare, "floor": prepare_floor}, rounds)
    return Figure(name, seconds["measured"], seconds["floor"], aim)
