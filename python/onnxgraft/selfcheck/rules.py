"""Conditions on the runs of a transformation on one graph: a table of rules, each yielding sentences."""

from __future__ import annotations

from collections.abc import Callable, Iterator
from dataclasses import dataclass

from onnx import GraphProto, NodeProto

from onnxgraft.graph.names import reads
from onnxgraft.selfcheck.recording import EndlessError, PassRecord, Run
from onnxgraft.selfcheck.soundness import new_problems


@dataclass(frozen=True)
class Runs:
    """All runs on one graph.

    `same` is a second run of the same object on the same graph. In `refused` every callback is answered with False, in
    `raised` one of them with an exception. `again` continues on the graph that `plain` left.
    """

    plain: Run
    same: Run
    refused: Run
    raised: Run | None
    again: Run | None


def broken(runs: Runs) -> Iterator[tuple[str, str]]:
    """Identifier and sentence for every condition that does not hold."""
    if any(isinstance(run.error, EndlessError) for run in (runs.plain, runs.same, runs.refused, runs.again) if run):
        yield "endless", "apply does not end"
        return
    for identifier, rule in _RULES.items():
        for sentence in rule(runs):
            yield identifier, sentence
    for run, when in ((runs.plain, ""), (runs.again, " after a second apply"), (runs.raised, " after an exception")):
        if run is not None:
            for identifier, sentence in new_problems(run.before, run.graph, faulted=run.error is not None):
                # After an exception, leftovers are a consequence and not another fault.
                if run.error is None or identifier not in ("unread", "node names"):
                    yield identifier, sentence + when


def _count(runs: Runs) -> Iterator[str]:
    for run in (runs.plain, runs.refused, runs.again):
        if run is None or run.error is not None:
            continue
        if type(run.result) is not int:
            yield f"apply returned {run.result!r}, not the number of replaced occurrences as an int"
        elif run.result != run.accepted:
            yield f"apply returned {run.result}, but {run.accepted} occurrences were replaced"


def _refusal(runs: Runs) -> Iterator[str]:
    if any(call.wrote_and_refused for call in runs.plain.calls):
        yield "the callback changed the graph and then refused the occurrence"
    for run, which in ((runs.plain, "refused all occurrences"), (runs.refused, "had all occurrences refused")):
        if run.error is None and not run.accepted and _bytes(run.graph) != _bytes(run.before):
            found = "found nothing" if not run.calls else which
            yield f"apply {found} and changed the graph anyway"


def _answer(runs: Runs) -> Iterator[str]:
    if any(call.said_nothing for call in runs.plain.calls):
        yield "the callback returned None, which refuses the occurrence: return True to accept it, False to refuse it"


def _others(runs: Runs) -> Iterator[str]:
    for run in (runs.plain, runs.refused):
        for one in run.passes:
            if one.after is not None:
                yield from _moved(one, one.after)


def _moved(one: PassRecord, after: list[NodeProto]) -> Iterator[str]:
    """Nodes that no replacement removed must still be there, as the same objects in the same order.

    Only producers of inputs of new nodes may have been moved up.
    """
    touched = {id(node) for call in one.calls for node in call.disturbed}
    place = {id(node): k for k, node in enumerate(after)}
    stay = [node for node in one.before if id(node) not in touched]
    for node in stay:
        if id(node) not in place:
            yield f"{node.op_type} '{node.name}' is part of no replacement and is gone"
            return
    old = {id(node) for node in one.before}
    wanted = {name for node in after if id(node) not in old for name in reads(node)}
    movable = set()
    for _ in after:
        more = [n for n in after if id(n) not in movable and wanted & set(n.output)]
        if not more:
            break
        for node in more:
            movable.add(id(node))
            wanted |= reads(node)
    fixed = [node for node in stay if id(node) not in movable]
    places = [place[id(node)] for node in fixed]
    if places != sorted(places):
        yield "nodes that are part of no replacement changed their order"


def _determinism(runs: Runs) -> Iterator[str]:
    if _bytes(runs.plain.graph) != _bytes(runs.same.graph) or runs.plain.result != runs.same.result:
        yield (
            "the same object gave another result for the same graph and seed: it keeps state between calls, or takes "
            "names or values from elsewhere than the graph and the seeded generators"
        )


_RULES: dict[str, Callable[[Runs], Iterator[str]]] = {
    "count": _count,
    "refusal": _refusal,
    "answer": _answer,
    "other nodes": _others,
    "determinism": _determinism,
}


def _bytes(graph: GraphProto) -> bytes:
    return graph.SerializeToString(deterministic=True)
