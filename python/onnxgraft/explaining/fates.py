"""The outcome of a run of a transformation for the nodes that fit its patterns."""

from __future__ import annotations

from collections.abc import Iterator, Sequence
from dataclasses import dataclass

from onnx import NodeProto

from onnxgraft.explaining.miss_texts import label
from onnxgraft.report.records import Occurrence, Step


@dataclass(frozen=True)
class Fate:
    """The outcome for one node in one place of a pattern."""

    outcome: str
    text: str


class Fates:
    """Look-up in the record of one step.

    Args:
        step: The step that ran, with the nodes of each occurrence; None if nothing ran.
    """

    def __init__(self, step: Step | None) -> None:
        self._step = step
        self._by_place: dict[tuple[tuple[str, ...], int, str], Occurrence] = {}
        self._takers: dict[str, tuple[int, Occurrence]] = {}  # by output of a node: what replaced it first
        for number, pattern in enumerate(() if step is None else step.patterns):
            for one in pattern.occurrences:
                for role, output in _outputs(one):
                    place = (pattern.pattern, role, output)
                    known = self._by_place.get(place)
                    if known is None or (one.accepted and not known.accepted):
                        self._by_place[place] = one
                    if one.accepted:
                        self._takers.setdefault(output, (number, one))

    def of(self, pattern: tuple[str, ...], role: int, nodes: Sequence[NodeProto]) -> Fate:
        """The outcome for the node that is number `role` of the nodes that fit a pattern."""
        if self._step is None:
            return Fate("fits", "it fits; a run shows whether the transformation accepts the match")
        stopped = self._step.error or self._step.undone
        if stopped is not None:
            return Fate("fits", f"it fits, but the transformation was undone: {stopped}")
        found = self._by_place.get((pattern, role, _first(nodes[role].output)))
        if found is not None and found.accepted:
            return Fate("replaced", f"replaced, with {_others(nodes, role)}" if len(nodes) > 1 else "replaced")
        if found is not None:
            reason = found.reason or "the transformation gave no reason"
            return Fate("done" if found.done else "refused", f"{'declined' if found.done else 'refused'}: {reason}")
        # The node asked about comes first: it may have been taken itself.
        for node in (nodes[role], *nodes):
            if taker := self._takers.get(_first(node.output)):
                number, by = taker
                names = ", ".join(one.label for one in by.before)
                what = "it" if node is nodes[role] else label(node)
                return Fate("taken", f"it fits, but another occurrence took {what}: pattern {number} replaced {names}")
        return Fate("fits", "it fits, but at its turn the nodes around it had been changed")


def _outputs(occurrence: Occurrence) -> Iterator[tuple[int, str]]:
    return ((role, _first(node.outputs)) for role, node in enumerate(occurrence.before))


def _first(outputs: Sequence[str]) -> str:
    return next(filter(None, outputs), "")


def _others(nodes: Sequence[NodeProto], role: int) -> str:
    return ", ".join(label(node) for number, node in enumerate(nodes) if number != role)
