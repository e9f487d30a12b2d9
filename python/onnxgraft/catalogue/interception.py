"""Functions in front of the methods of one transformation: the only way in which a tool looks on or takes part.

They stand on the object and not in a subclass: `isinstance`, `super()` and whatever else a class does work as ever, and
making a subclass may have effects that its author meant for his own subclasses.
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
    """Has `functions` called in place of the methods of these names inside of the `with` block."""
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
    """The (pattern, replacement) pairs in the order in which `apply` takes them, told by a run over an empty graph."""
    taken: list[Pair] = []

    # The parameters are named as in the method that this one stands for.
    def take_note(graph: object, subgraph: Any, replacement: Any, *_: object, **_named: object) -> int:
        taken.append((tuple(subgraph), tuple(replacement)))
        return 0

    with intercepted(instance, {REPLACE: take_note}):
        instance.apply(onnx.GraphProto())
    return tuple(taken)
