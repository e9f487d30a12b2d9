"""Observes a transformation while it runs.

For the time of one run, functions on the watched instance intercept the two methods that every pass goes through. Its
class stays the same, so `isinstance`, `super()` and everything else that a class does work as before.
"""

from __future__ import annotations

import inspect
import logging
import re
from collections.abc import Callable, Iterator, Mapping, Sequence
from contextlib import contextmanager
from dataclasses import dataclass
from time import perf_counter
from typing import Any, Literal

import onnx

from onnxgraft.abstract_transformation import AbstractTransformation, nearest_miss, observed
from onnxgraft.catalogue import CALLBACK, REPLACE, intercepted
from onnxgraft.engine.shapes import Shapes
from onnxgraft.engine.snapshot import Snapshot
from onnxgraft.following import Splice
from onnxgraft.graph.surroundings import Surroundings
from onnxgraft.io.weight_store import WeightStore
from onnxgraft.report.node_texts import Kept, keep
from onnxgraft.report.records import MOST_READERS, NodeText, Occurrence, PatternResult

Details = Literal["counts", "nodes", "neighbours"]

_WEIGHTS = "_update_weights"
_DEFAULT_CALLBACK = vars(AbstractTransformation)[CALLBACK]
_REASONS = "refusal_reasons"
_DONE = "is INT8 already"  # the ending of a callback's reason if nothing is left to do
_NAMES = re.compile(r"(?: node)? '[^']*'")  # the varying part of refusals of one kind

_log = logging.getLogger(__name__)


@dataclass(frozen=True)
class Failure:
    """Where an exception was raised."""

    pattern: tuple[str, ...]
    nodes: tuple[NodeText, ...] = ()  # of the occurrence whose callback raised


@dataclass
class _Pass:
    """One pattern that is being replaced."""

    result: PatternResult
    shapes: Shapes | None = None
    around: Surroundings | None = None


class Recorder:
    """The record of one transformation in one run.

    Attributes:
        patterns: One result per (pattern, replacement) pair, in the order in which they were run.
        failure: Where it raised, if it did while it ran a pattern.
        splices: The accepted occurrences, in order; empty unless `splices` was requested.
    """

    def __init__(
        self,
        snapshot: Snapshot | None,
        details: Details,
        *,
        misses: bool = True,
        splices: bool = False,
        store: WeightStore | None = None,
        matters: Callable[[Sequence[onnx.NodeProto]], bool] | None = None,
        calls_all: bool = True,
    ) -> None:
        """Watches one transformation.

        Args:
            snapshot: Takes in nested graphs before they change; None if nothing is ever undone.
            details: How much is recorded of each occurrence.
            misses: Whether to compute the nearest miss of a pattern that is not found.
            splices: Whether to keep what followers need.
            store: Where to put new weights, if not into the graph.
            matters: Decides by its nodes whether an occurrence is recorded; None records all.
            calls_all: Whether callbacks also run for the other occurrences; otherwise these count as accepted.
        """
        self.patterns: list[PatternResult] = []
        self.failure: Failure | None = None
        self.splices: list[Splice] = []
        self.refused: dict[str, str] = {}  # outputs and names of matched nodes -> the callback's reason
        self._keeps_splices = splices
        self._snapshot = snapshot
        self._details = details
        self._misses = misses
        self._store = store
        self._matters = matters
        self._calls_all = calls_all
        self._pass: _Pass | None = None

    @contextmanager
    def watch(self, transformation: Any) -> Iterator[None]:
        """Records the actions of `transformation` inside the `with` block."""
        replaced = {REPLACE: observed(getattr(transformation, REPLACE), self._replace_all)}
        callback = getattr(transformation, CALLBACK)
        is_default = getattr(callback, "__func__", None) is _DEFAULT_CALLBACK
        # The default callback accepts everything: for counts alone it need not run.
        if not is_default or self._details != "counts" or self._keeps_splices:
            replaced[CALLBACK] = self._on_replace(callback)
        if self._store is not None and hasattr(transformation, _WEIGHTS):
            replaced[_WEIGHTS] = observed(getattr(transformation, _WEIGHTS), _storing(self._store))
        with intercepted(transformation, replaced):
            yield

    def _replace_all(
        self, original: Callable[..., int], graph: Any, subgraph: Any, replacement: Any, *more: Any, **named: Any
    ) -> int:
        if self._snapshot is not None:
            self._snapshot.include(graph)
        result = PatternResult(_strings(subgraph), _strings(replacement))
        self.patterns.append(result)
        outer, self._pass = self._pass, _Pass(result)
        start = perf_counter()
        try:
            count = original(graph, subgraph, replacement, *more, **named)
        except BaseException:
            self.failure = self.failure or Failure(result.pattern)
            raise
        finally:
            result.seconds = perf_counter() - start
            self._pass = outer
        if not result.found:  # the default callback did not run: it would have accepted everything
            result.found = result.replaced = count
        if self._misses and not result.found:
            miss = nearest_miss(graph, subgraph, replacement)
            result.nearest_miss = miss["text"] if miss else None
        _log.debug(
            "%s: found %d, replaced %d, refused %d in %.3f s%s", list(result.pattern), result.found,
            result.replaced, result.refused, result.seconds,
            f"; nearest miss: {result.nearest_miss}" if result.nearest_miss else "",
        )  # fmt: skip
        return count

    def _on_replace(self, callback: Any) -> Callable[..., Any]:
        """Intercepts the callback, counts and records its answers."""
        gives_reasons = _takes_reasons(callback)

        # The parameters have the names of the replaced method.
        def on_replace(
            original: Any,
            graph: Any,
            replaced_nodes: Any,
            isomorphic_node_mapping: Any,
            isomorphic_links_mapping: Any,
            **named: Any,
        ) -> Any:
            arguments = (graph, replaced_nodes, isomorphic_node_mapping, isomorphic_links_mapping)
            current = self._pass
            if current is None:  # called by hand, outside of a pass
                return original(*arguments, **named)
            is_kept = self._details != "counts" and (self._matters is None or self._matters(replaced_nodes))
            if not (is_kept or self._calls_all):
                return True
            reasons: list[str] = []
            if gives_reasons:
                named[_REASONS] = reasons
            before, placed = self._take_hold(current, *arguments[:3]) if is_kept else ([], [])
            matched = tuple(map(_copy, replaced_nodes)) if self._keeps_splices else ()
            try:
                accepted = bool(original(*arguments, **named))
            except BaseException:
                if self.failure is None:
                    self.failure = Failure(current.result.pattern, tuple(map(NodeText.of, replaced_nodes)))
                raise
            reason = "; ".join(reasons)
            done = not accepted and reason.endswith(_DONE)
            current.result.found += 1
            current.result.replaced += accepted
            current.result.done += done
            if not (accepted or done):
                self._note_refusal(current.result, replaced_nodes, reason)
            if self._keeps_splices and accepted:
                pair = current.result.pattern, current.result.replacement
                self.splices.append(Splice(*pair, dict(isomorphic_links_mapping), matched, graph))
            if is_kept:
                current.result.occurrences.append(
                    self._occurrence(current, before, placed, isomorphic_links_mapping, accepted, reason, done)
                )
            return accepted

        return observed(callback, on_replace)

    def _note_refusal(self, result: PatternResult, nodes: Sequence[onnx.NodeProto], reason: str) -> None:
        result.refused += 1
        words = _NAMES.sub("", reason) or "no reason given"
        result.reasons[words] = result.reasons.get(words, 0) + 1
        for node in nodes:
            self.refused.update((name, reason or "no reason given") for name in (*node.output, node.name) if name)

    def _take_hold(
        self, current: _Pass, graph: onnx.GraphProto, nodes: Sequence[onnx.NodeProto], mapping: Mapping[int, int]
    ) -> tuple[list[Kept], list[tuple[onnx.NodeProto, int]]]:
        """The replaced nodes as they are, and the new ones with their indices: a callback may move or change them."""
        if current.shapes is None:
            current.shapes = Shapes(graph)
            current.around = Surroundings(graph) if self._details == "neighbours" else None
        count, listed = len(current.result.replacement), graph.node
        placed = [(listed[index], index) for key, index in mapping.items() if key < count]
        return [keep(node) for node in nodes], placed

    @staticmethod
    def _occurrence(
        current: _Pass,
        before: list[Kept],
        placed: list[tuple[onnx.NodeProto, int]],
        links: Mapping[str, str],
        accepted: bool,
        reason: str,
        done: bool,
    ) -> Occurrence:
        neighbours: tuple[NodeText, ...] = ()
        tensors = list(links.values())
        if around := current.around:
            indices = around.neighbours(tensors, {index for _, index in placed}, MOST_READERS)
            nodes = [around.nodes[index] for index in indices]
            neighbours = tuple(map(NodeText.of, nodes, indices))
            for node in nodes:
                tensors += node.input
                tensors += node.output
        return Occurrence.of(
            accepted=accepted,
            reason=reason or None,
            done=done,
            before=before,
            after=[(keep(node), index) for node, index in placed],
            links=links,
            neighbours=neighbours,
            kinds={} if current.shapes is None else current.shapes.kinds(tensors),
        )


def _takes_reasons(callback: Callable[..., object]) -> bool:
    try:
        parameters = inspect.signature(callback).parameters
    except (TypeError, ValueError):
        return False
    return _REASONS in parameters or any(p.kind == p.VAR_KEYWORD for p in parameters.values())


def _storing(store: WeightStore) -> Callable[..., Any]:
    def update_weights(original: Callable[..., Any], *arguments: Any, **named: Any) -> tuple[onnx.TensorProto, Any]:
        tensor, shape = original(*arguments, **named)
        return store.store(tensor), shape

    return update_weights


def _copy(node: onnx.NodeProto) -> onnx.NodeProto:
    copy = onnx.NodeProto()
    copy.CopyFrom(node)
    return copy


def _strings(pattern: Any) -> tuple[str, ...]:
    """A pattern list in the form of a report; the pass itself will report errors in it."""
    if isinstance(pattern, Sequence) and not isinstance(pattern, str):
        return tuple(map(str, pattern))
    return (repr(pattern),)
