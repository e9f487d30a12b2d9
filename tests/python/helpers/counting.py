"""What repeated calls leave behind, as the interpreter counts it: blocks of memory, and references to what lives on."""

from __future__ import annotations

import gc
import sys
from collections.abc import Callable

REPEATS = 25
# Not among the objects that the garbage collector knows, but easily lost.
PLAIN = (None, True, False, "", b"", 0.0, *range(-1, 10), "node", "name", "input", "FLOAT")


def counts() -> tuple[int, int]:
    """References to all long-lived objects, and blocks of memory."""
    gc.collect()
    references = map(sys.getrefcount, (*gc.get_objects(), *PLAIN))
    # Immortal objects have huge counts, which older binaries change as they like.
    return sum(count for count in references if count < 1 << 28), sys.getallocatedblocks()


def _growth(act: Callable[[], object]) -> float:
    start = counts()
    for _ in range(REPEATS):
        act()
    middle = counts()
    for _ in range(2 * REPEATS):
        act()
    end = counts()
    # What happens once, such as a cache that fills, is in both; what happens at each call is twice in the second.
    return max((end[k] - middle[k]) - (middle[k] - start[k]) for k in (0, 1)) / REPEATS


def grows(act: Callable[[], object]) -> bool:
    """Whether each call leaves references or blocks behind; what else goes on in the process does not do so thrice."""
    for _ in range(REPEATS):
        act()
    return all(_growth(act) > 0.9 for _ in range(3))
