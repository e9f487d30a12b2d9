"""`explain`: for whole patterns, or for single nodes."""

from __future__ import annotations

import os
from collections import Counter
from collections.abc import Iterable, Sequence
from dataclasses import dataclass
from typing import TypeAlias, overload

import onnx

from onnxgraft.abstract_transformation import AbstractTransformation
from onnxgraft.accounting import reasons_in_float
from onnxgraft.accounting.quantizers import is_quantizing
from onnxgraft.catalogue import Pair, Transformation, find_row, rows
from onnxgraft.engine.rehearsal import rehearse
from onnxgraft.engine.selection import candidates
from onnxgraft.errors import WrongUsageError
from onnxgraft.explaining.fates import Fates
from onnxgraft.explaining.miss_texts import label
from onnxgraft.explaining.node_answers import NodeAnswer, NodeExplanation
from onnxgraft.explaining.node_choice import chosen_nodes
from onnxgraft.explaining.node_tracing import Place, Tracer
from onnxgraft.explaining.turns import Turns
from onnxgraft.graph.name_check import telling_bad_texts
from onnxgraft.graph.surroundings import Surroundings
from onnxgraft.io.given import Readable, folder_of, opened
from onnxgraft.matching import Explanation, Subject
from onnxgraft.matching import explain as explain_patterns
from onnxgraft.matching.subject import Lists, graph_of, subject_of
from onnxgraft.report.records import Step

OneTransformation: TypeAlias = "str | type[AbstractTransformation] | AbstractTransformation | Transformation | Lists"
Folder: TypeAlias = "str | os.PathLike[str] | None"


@overload
def explain(graph: Readable, transformation: OneTransformation) -> list[Explanation]: ...


@overload
def explain(
    graph: Readable,
    transformation: OneTransformation | None = None,
    *,
    node: str | Iterable[str],
    best: int | None = 3,
    folder: Folder = None,
) -> list[NodeExplanation]: ...


@telling_bad_texts
def explain(
    graph: Readable,
    transformation: OneTransformation | None = None,
    *,
    node: str | Iterable[str] | None = None,
    best: int | None = 3,
    folder: Folder = None,
) -> list[Explanation] | list[NodeExplanation]:
    """Reports how patterns match a graph; or, with `node`, how single nodes match patterns.

    Without `node`, it reports for every pattern of a transformation how often it matches, or why it does not. All
    patterns are checked on the graph as it is, and no callback runs.

    With `node`, it reports the outcome for each place that a node could take in a pattern: it was replaced, refused by
    the transformation (with its reason), taken by another occurrence, or it does not fit. For the latter it reports
    which condition failed, and where, in the attempt from that node that got furthest. Transformations with a pattern
    that fits run on a copy, each by itself; the given graph does not change.

    Args:
        graph: The graph; or a model, or the path of one, for its graph.
        transformation: A short name, a class, an instance or a row of the catalogue; a pattern, such as
            `["Conv:0,1i->2", "Relu:2->3"]`; or a pattern and its replacement, two lists. With `node` it may be omitted:
            then the whole catalogue is tried.
        node: Names of nodes; a tensor means the node that writes it, or else those that read it; globs.
        best: The number of answers for each node, the nearest first; None for all.
        folder: The folder that the locations of external tensors start from; None is that of the path, or the current
            one.

    Returns:
        One `Explanation` per pattern, in their order. With `node`, one `NodeExplanation` per node, in graph order.

    Raises:
        UnknownTransformationError: No transformation has that short name.
        UnknownNameError: No node or tensor goes by a name of `node`.
        WrongUsageError: Neither a transformation nor a node is named.
        ValueError: A pattern or replacement of the transformation does not follow the notation.
    """
    if node is None:
        if transformation is None:
            raise WrongUsageError("explain needs a transformation, or nodes with `node=`")
        return explain_patterns(graph, transformation)
    folder = folder_of(graph, folder)
    asked = list(rows().values()) if transformation is None else [transformation]
    return _Asking(opened(graph), [node] if isinstance(node, str) else node, asked, best, folder).alone()


def explain_in_turn(
    model: onnx.ModelProto,
    transformations: Sequence[Transformation],
    node: Iterable[str],
    *,
    best: int | None = 3,
    folder: Folder = None,
    exclude: Iterable[str] = (),
    only: Iterable[str] = (),
) -> list[NodeExplanation]:
    """The same for nodes and several transformations, each on the result of those before it; `model` is rewritten.

    `exclude` and `only` are those of `rewrite`.
    """
    asking = _Asking(model, node, transformations, best, folder)
    return asking.in_turn(transformations, Turns(model, folder, exclude, only))


@dataclass(frozen=True)
class _Asked:
    """A node as it was at the start."""

    index: int
    name: str
    op_type: str
    output: str
    label: str

    def position(self, nodes: Sequence[onnx.NodeProto], by_key: dict[str, int]) -> int | None:
        """Where it is now: it keeps its name, or its output, when something around it is replaced."""
        found = by_key.get(self.name if self.name else self.output)
        if found is None or nodes[found].op_type != self.op_type:
            found = by_key.get(self.output)
        return found if found is not None and nodes[found].op_type == self.op_type else None


class _Asking:
    """One question about nodes of a graph."""

    def __init__(
        self,
        given: onnx.ModelProto | onnx.GraphProto,
        names: Iterable[str],
        transformations: Sequence[OneTransformation],
        best: int | None,
        folder: Folder,
    ) -> None:
        self._given = given
        self._graph = graph_of(given)
        self._functions = list(given.functions) if isinstance(given, onnx.ModelProto) else []
        self._around = Surroundings(self._graph)
        self._transformations = transformations
        self._best = best
        self._folder = folder
        chosen = chosen_nodes(self._around, names)
        self._asked = [_asked(self._around, index) for index in chosen]
        self._in_float: dict[str, str] = {}
        if any(map(_quantizes, transformations)):
            self._in_float = reasons_in_float(self._graph, [self._around.nodes[index] for index in chosen])
        self._answers: dict[int, list[tuple[tuple[int, ...], NodeAnswer]]] = {index: [] for index in chosen}
        self._left_out: Counter[int] = Counter()

    def alone(self) -> list[NodeExplanation]:
        """Each transformation by itself, on a copy."""
        subjects = list(map(subject_of, self._transformations))
        tracer = Tracer(self._around, self._functions, self._best)
        found, self._left_out = tracer.places(subjects, self._answers)
        for transformation, subject, places in zip(self._transformations, subjects, found, strict=True):
            fates = Fates(self._rehearsed(transformation, subject, [place for place in places if place.nodes]))
            for place in places:
                self._answers[place.node].append(place.settled(fates))
        return self._result()

    def in_turn(self, chosen: Iterable[Transformation], turns: Turns) -> list[NodeExplanation]:
        """Each transformation on the result of those before it."""
        now = {index: index for index in self._answers}  # present index -> the one at the start
        tracer = Tracer(self._around, self._functions, self._best)
        for row in chosen:
            (places,), more = tracer.places([subject_of(row)], now)
            self._left_out.update({now[index]: count for index, count in more.items()})
            step = turns.run(row, _tensors(places))
            fates = Fates(step)
            for place in places:
                self._answers[now[place.node]].append(place.settled(fates))
            if step.replaced or not row.is_own:
                around = Surroundings(self._graph)
                now = _positions(around, self._asked)
                tracer = Tracer(around, self._functions, self._best)
        return self._result()

    def _rehearsed(self, transformation: OneTransformation, subject: Subject, fitting: Sequence[Place]) -> Step | None:
        """The result of a run; None for lists, for patterns whose replacement changes nothing, and if nothing fits."""
        if not fitting or isinstance(transformation, list | tuple) or all(map(_changes_nothing, subject.pairs)):
            return None
        copy = onnx.GraphProto()
        copy.CopyFrom(self._graph)
        (candidate,) = candidates(transformation, ())
        return rehearse(copy, candidate, _tensors(fitting), self._folder)

    def _result(self) -> list[NodeExplanation]:
        result = []
        for node in self._asked:
            answers = [answer for _, answer in sorted(self._answers[node.index], key=lambda pair: pair[0])]
            kept = tuple(answers[: self._best])
            more = self._left_out[node.index] + len(answers) - len(kept)
            why = self._in_float.get(node.output)
            result.append(NodeExplanation(node.index, node.name, node.op_type, node.label, why, kept, more))
        return result


def _tensors(places: Iterable[Place]) -> set[str]:
    """The tensors that the nodes that fit read and write."""
    nodes = [node for place in places for node in place.nodes]
    return {name for node in nodes for name in (*node.input, *node.output) if name}


def _asked(around: Surroundings, index: int) -> _Asked:
    node = around.nodes[index]
    return _Asked(index, node.name, node.op_type, next(filter(None, node.output), ""), label(node))


def _positions(around: Surroundings, asked: Iterable[_Asked]) -> dict[int, int]:
    """Present index -> index at the start, of the nodes that still exist."""
    by_key: dict[str, int] = {}
    for index, node in enumerate(around.nodes):
        for key in filter(None, (*node.output, node.name)):
            by_key.setdefault(key, index)
    found = ((node.position(around.nodes, by_key), node.index) for node in asked)
    return {position: index for position, index in found if position is not None}


def _changes_nothing(pair: Pair) -> bool:
    pattern, replacement = pair
    return list(replacement) == [f"#{number}" for number in range(len(pattern))]


def _quantizes(transformation: OneTransformation) -> bool:
    if isinstance(transformation, list | tuple):
        return False
    if isinstance(transformation, str):
        transformation = find_row(transformation)
    if isinstance(transformation, Transformation):
        return is_quantizing(transformation)
    cls = transformation if isinstance(transformation, type) else type(transformation)
    return is_quantizing(Transformation("", cls))
