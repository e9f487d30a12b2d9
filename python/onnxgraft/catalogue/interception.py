"""Calls given functions instead of methods of one transformation: the only way for a tool to observe or take part.

The functions are set on the object, not in a subclass. So `isinstance`, `super()` and everything else that a class does
work as before, and no subclass hook of the author runs.
"""

from __future__ import annotations

from collections.abc import Callable, Iterator, Mapping
from contextlib import contextmanager
from typing import Any

import onnx

# Every pass of a transformation goes through the first, every occurrence through the second.
REPLACE, CALLBACK = "_replace_all_isomorphic_sub_graphs", "_on_replace_subgraph"

Pair = tuple[tuple[str, ...], tuple[str, ...]]


@contextmanager
def intercepted(instance: Any, functions: Mapping[str, Callable[..., Any]]) -> Iterator[None]:
    """Calls `functions` instead of the methods of these names inside the `with` block."""
    own = vars(instance)
    before = {name: own[name] for name in functions if name in own}
    own.update(functions)
    try:
        yield
    finally:
        for name in functions:
            own.pop(name, None)
        own.update(before)


def pairs_of(instance: Any) -> tuple[Pair, ...]:
    """The (pattern, replacement) pairs in the order in which `apply` takes them, recorded on an empty graph."""
    taken: list[Pair] = []

    # The parameters have the names of the replaced method.
    def take_note(graph: object, subgraph: Any, replacement: Any, *_: object, **_named: object) -> int:
        taken.append((tuple(subgraph), tuple(replacement)))
        return 0

    with intercepted(instance, {REPLACE: take_note}):
        instance.apply(onnx.GraphProto())
    return tuple(taken)
