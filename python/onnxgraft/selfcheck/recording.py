"""Runs a transformation on a graph and records what it did: passes, callbacks, result, error.

Functions intercept its methods and record the calls. On request they refuse or raise instead of calling.
"""

from __future__ import annotations

import random
from collections.abc import Callable, Iterator, Sequence
from contextlib import contextmanager
from dataclasses import dataclass, field
from functools import partial
from typing import Any

import numpy as np
from onnx import GraphProto, NodeProto

from onnxgraft.abstract_transformation import AbstractTransformation
from onnxgraft.catalogue import CALLBACK, REPLACE, intercepted
from onnxgraft.catalogue.notation import read_pair

# What one `apply` may need at most on graphs with tens of nodes: callbacks and passes, and growth.
_MOST_EVENTS = 1_000
_LARGEST_GROWTH = 20


class EndlessError(BaseException):
    """Ends an endless `apply`; not an `Exception`, so that the transformation does not catch it."""


class ForcedError(Exception):
    """Raised instead of calling a callback."""


@dataclass(frozen=True)
class Call:
    """One callback: its answer, and whether it wrote to the graph before it refused."""

    accepted: bool
    said_nothing: bool  # it returned None, like a function without `return`
    wrote_and_refused: bool
    disturbed: tuple[NodeProto, ...]  # matched nodes that the replacement does not keep


@dataclass
class PassRecord:
    """One call of `_replace_all_isomorphic_sub_graphs`: the node objects before and after, and its callbacks."""

    before: list[NodeProto]
    after: list[NodeProto] | None = None  # None if it raised
    calls: list[Call] = field(default_factory=list)


@dataclass
class Run:
    """One `apply`. `graph` is its state afterwards."""

    before: GraphProto
    graph: GraphProto
    passes: list[PassRecord] = field(default_factory=list)
    result: object = None
    error: BaseException | None = None
    raised_in_callback: bool = False

    @property
    def calls(self) -> list[Call]:
        """The callbacks of all passes."""
        return [call for one in self.passes for call in one.calls]

    @property
    def accepted(self) -> int:
        """How many of them accepted."""
        return sum(call.accepted for call in self.calls)


class Runner:
    """Runs one class repeatedly."""

    def __init__(self, cls: type[AbstractTransformation]) -> None:
        self._cls: type[Any] = cls
        self._run: Run
        self._refuse = False
        self._raise_at: int | None = None
        self._events = self._asked = 0
        self._kept: frozenset[int] = frozenset()  # nodes that the current replacement names bare

    def new(self) -> Any:
        """An instance to give to `run`."""
        return self._cls()

    def run(self, instance: Any, graph: GraphProto, *, refuse: bool = False, raise_at: int | None = None) -> Run:
        """Applies `instance` to a copy of `graph`; the generators of NumPy and `random` start from the same seed."""
        copy = GraphProto()
        copy.CopyFrom(graph)
        self._run, self._refuse, self._raise_at = Run(graph, copy), refuse, raise_at
        self._events = self._asked = 0
        in_front: dict[str, Callable[..., Any]] = {
            REPLACE: partial(self._replace_all, instance),
            CALLBACK: partial(self._ask, instance),
        }
        with _seeded(), intercepted(instance, in_front):
            try:
                self._run.result = instance.apply(copy)
            except (Exception, EndlessError) as error:
                self._run.error = error
        return self._run

    def _replace_all(
        self,
        instance: Any,
        graph: GraphProto,
        subgraph: Sequence[str],
        replacement: Sequence[str],
        *more: Any,
        **named: Any,
    ) -> int:
        """Runs a pass and notes the nodes before and after."""
        self._count()
        if len(graph.node) > _LARGEST_GROWTH * (len(self._run.before.node) + 10):
            raise EndlessError
        record = PassRecord(list(graph.node))
        self._run.passes.append(record)
        entries = read_pair(subgraph, replacement)[1]
        self._kept = frozenset(entry.source for entry in entries if entry.kept and entry.source is not None)
        count = self._cls._replace_all_isomorphic_sub_graphs(instance, graph, subgraph, replacement, *more, **named)
        record.after = list(graph.node)
        return int(count)

    def _ask(self, instance: Any, graph: GraphProto, nodes: list[NodeProto], *rest: Any, **keywords: Any) -> bool:
        """Lets the class decide, unless the caller set an answer."""
        self._count()
        current = self._run.passes[-1]
        self._asked += 1
        if self._raise_at == self._asked - 1:
            self._run.raised_in_callback = True
            raise ForcedError
        before = graph.SerializeToString(deterministic=True)
        try:
            answer = (
                False if self._refuse else self._cls._on_replace_subgraph(instance, graph, nodes, *rest, **keywords)
            )
        except Exception:
            self._run.raised_in_callback = True
            raise
        accepted = bool(answer)
        wrote = not accepted and graph.SerializeToString(deterministic=True) != before
        disturbed = tuple(node for k, node in enumerate(nodes) if k not in self._kept)
        current.calls.append(Call(accepted, answer is None, wrote, disturbed))
        return accepted

    def _count(self) -> None:
        self._events += 1
        if self._events > _MOST_EVENTS:
            raise EndlessError


@contextmanager
def _seeded() -> Iterator[None]:
    """Seeds the process-wide generators and restores their state afterwards."""
    state, numpy_state = random.getstate(), np.random.get_state()
    random.seed(0)
    np.random.seed(0)
    try:
        yield
    finally:
        random.setstate(state)
        np.random.set_state(numpy_state)
