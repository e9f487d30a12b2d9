"""Single nodes against the patterns of one transformation."""

from __future__ import annotations

import dataclasses
from collections import Counter
from collections.abc import Iterable, Sequence
from dataclasses import dataclass
from typing import TYPE_CHECKING, Any, cast

from onnx import FunctionProto, NodeProto

from onnxgraft.abstract_transformation import trace_nodes
from onnxgraft.catalogue import Pair
from onnxgraft.catalogue.notation import PatternNode, read_pair
from onnxgraft.explaining.fates import Fates
from onnxgraft.explaining.miss_texts import sentence
from onnxgraft.explaining.node_answers import OUTCOMES, NodeAnswer
from onnxgraft.graph.surroundings import Surroundings
from onnxgraft.matching import Subject, hints

if TYPE_CHECKING:
    from onnxgraft.abstract_transformation import _Trace

# The order in which conditions are tested: a late failure is nearer to a match than an early one.
_LATENESS = {
    reason: number
    for number, reason in enumerate(
        (
            "missing_operator",
            "wrong_operator",
            "no_reader",
            "no_producer",
            "input_count",
            "input_omitted",
            "not_initializer",
            "rest_not_initializer",
            "output_count",
            "second_producer",
            "node_used_twice",
            "different_tensors",
            "other_position",
            "same_tensor",
            "too_few_readers",
            "read_by_body",
            "graph_output",
            "read_elsewhere",
            "closes_cycle",
        )
    )
}
_WITH_INPUT = frozenset({"input_omitted", "not_initializer", "rest_not_initializer", "other_position"})


@dataclass(frozen=True)
class Place:
    """A node in one place of a pattern: an answer, or the material for an answer once a run has shown the rest.

    Attributes:
        node: Index in graph.node.
        rank: How near it came; the smallest is the nearest.
        answer: For one that fits, without its outcome.
        nodes: Those that fit, as they were; none for a miss.
    """

    node: int
    rank: tuple[int, ...]
    answer: NodeAnswer
    nodes: tuple[NodeProto, ...] = ()

    def settled(self, fates: Fates) -> tuple[tuple[int, ...], NodeAnswer]:
        """With its outcome."""
        if not self.nodes:
            return self.rank, self.answer
        fate = fates.of(self.answer.pattern, self.answer.pattern_node, self.nodes)
        rank = (0, OUTCOMES.index(fate.outcome))
        return rank, dataclasses.replace(self.answer, outcome=fate.outcome, text=fate.text)


class Tracer:
    """Traces nodes of a graph as it is now, for one transformation after the other.

    Args:
        around: The graph.
        functions: Those of its model, for hints.
        best: How many misses of a node are described; None for all.
    """

    def __init__(self, around: Surroundings, functions: Sequence[FunctionProto], best: int | None) -> None:
        self._around = around
        self._functions = functions
        self._best = best
        self._read: dict[Pair, tuple[PatternNode, ...]] = {}
        self._told: dict[object, str | None] = {}  # hints that do not depend on the node

    def places(self, subjects: Sequence[Subject], nodes: Iterable[int]) -> tuple[list[list[Place]], Counter[int]]:
        """The places that nodes have or miss in patterns: of each subject, in order.

        Only the nearest misses of a node, whatever the subject, are described; the counter has the number of its other
        misses. The graph is read once for all patterns.
        """
        owners = [(number, index) for number, subject in enumerate(subjects) for index in range(len(subject.pairs))]
        misses: dict[int, list[tuple[int, int, _Trace]]] = {}
        found: list[list[Place]] = [[] for _ in subjects]
        for one in trace_nodes(self._around.graph, [pair for subject in subjects for pair in subject.pairs], nodes):
            number, index = owners[one["pair"]]
            if one["miss"] is None:
                found[number].append(self._fitting(subjects[number], index, one))
            else:
                misses.setdefault(one["node"], []).append((number, index, one))
        more: Counter[int] = Counter()
        for node, missed in misses.items():
            nearest = sorted(missed, key=lambda miss: _rank(subjects[miss[0]].pairs[miss[1]], miss[2]))[: self._best]
            for number, index, one in nearest:
                found[number].append(self._missed(subjects[number], index, one))
            more[node] = len(missed) - len(nearest)
        return found, more

    def _fitting(self, subject: Subject, index: int, one: _Trace) -> Place:
        pattern = subject.pairs[index][0]
        size, occurrence = len(pattern), tuple(one["occurrence"] or ())
        answer = NodeAnswer(
            subject.name, index, pattern, one["pattern_node"], "fits", size, size, "", occurrence=occurrence
        )
        nodes = []
        for position in occurrence:  # a run may change the node
            nodes.append(NodeProto())
            nodes[-1].CopyFrom(self._around.nodes[position])
        return Place(one["node"], (0,), answer, tuple(nodes))

    def _missed(self, subject: Subject, index: int, one: _Trace) -> Place:
        pair = subject.pairs[index]
        if pair not in self._read:
            self._read[pair] = read_pair(*pair)[0]
        pattern, miss = pair[0], cast("Any", one["miss"])
        tried = None if miss["node"] is None else self._around.nodes[miss["node"]]
        material = hints.Miss(self._around, self._read[pair], self._functions, tried, miss)
        answer = NodeAnswer(
            subject.name,
            index,
            pattern,
            one["pattern_node"],
            "miss",
            miss["matched"],
            len(pattern),
            sentence(material),
            reason=miss["reason"],
            failed_pattern_node=miss["pattern_node"],
            other=miss["node"],
            input=miss["input"] if miss["reason"] in _WITH_INPUT else None,
            tensor=miss["tensor"],
            reader=miss["reader"],
            hint=self._hint(pattern, material),
        )
        return Place(one["node"], _rank(pair, one), answer)

    def _hint(self, pattern: tuple[str, ...], material: hints.Miss) -> str | None:
        if material.reason != "missing_operator":
            return hints.on_miss(material)
        key = (pattern, material.role)
        if key not in self._told:
            self._told[key] = hints.on_miss(material)
        return self._told[key]


def _rank(pair: Pair, one: _Trace) -> tuple[int, ...]:
    """Few pattern nodes left, many that match, a condition tested late."""
    miss: Any = one["miss"]
    of = len(pair[0])
    return 1, of - miss["matched"], -miss["matched"], -_LATENESS[miss["reason"]]
