"""`explain`: for whole patterns, or for single nodes."""

from __future__ import annotations

import copy
import os
from collections import Counter
from collections.abc import Iterable, Sequence
from dataclasses import dataclass
from typing import Any, TypeAlias, overload

import onnx

from onnxgraft.abstract_transformation import AbstractTransformation
from onnxgraft.accounting import account_of, declared_shapes
from onnxgraft.accounting.quantizers import is_quantizing
from onnxgraft.catalogue import Pair, Transformation, find_row, rows
from onnxgraft.engine import rewrite
from onnxgraft.errors import WrongUsageError
from onnxgraft.explaining.fates import Fates
from onnxgraft.explaining.miss_texts import label
from onnxgraft.explaining.node_answers import NodeAnswer, NodeExplanation
from onnxgraft.explaining.node_choice import chosen_nodes
from onnxgraft.explaining.node_tracing import Tracer
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
    """Tells how patterns fare in a graph; or, with `node`, how single nodes fare in patterns.

    Without `node`, it tells for every pattern of a transformation how often it matches, or why it does not. All
    patterns are judged on the graph as it is, and no callback is asked.

    With `node`, it tells for each place that a node could take in a pattern what became of it: it was replaced, refused
    by the transformation (with its reason), taken by another occurrence, or it does not fit; then which condition
    failed, and where, in the attempt from that node that got furthest. Transformations with a pattern that fits run
    on a copy, each by itself; the graph that was given does not change.

    Args:
        graph: The graph; or a model, or the path of one, for its graph.
        transformation: A short name, a class, an instance or a row of the catalogue; a pattern, such as
            `["Conv:0,1i->2", "Relu:2->3"]`; or a pattern and its replacement, two lists. With `node` it may be left
            out: then all of the catalogue are asked.
        node: Names of nodes; a tensor stands for the node that writes it, or else for those that read it; globs.
        best: The number of answers for each node, the nearest first; None for all.
        folder: The folder that the locations of external tensors start from; None is that of the path, or
            the current one.

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
    given = opened(graph)
    asked = list(rows().values()) if transformation is None else [transformation]
    names = [node] if isinstance(node, str) else node
    return _explain_nodes(given, asked, names, best, folder, in_turn=False)


def explain_in_turn(
    model: onnx.ModelProto,
    transformations: Sequence[Transformation],
    node: Iterable[str],
    *,
    best: int | None = 3,
    folder: Folder = None,
) -> list[NodeExplanation]:
    """The same for nodes and several transformations, each on what those before it leave; `model` is rewritten."""
    return _explain_nodes(model, transformations, node, best, folder, in_turn=True)


@dataclass(frozen=True)
class _Asked:
    """A node as it was at the beginning."""

    index: int
    name: str
    op_type: str
    output: str
    label: str

    def position(self, nodes: Sequence[onnx.NodeProto], by_key: dict[str, int]) -> int | None:
        """Where it is now: it keeps its name, or what it writes, when something around it is replaced."""
        found = by_key.get(self.name if self.name else self.output)
        if found is None or nodes[found].op_type != self.op_type:
            found = by_key.get(self.output)
        return found if found is not None and nodes[found].op_type == self.op_type else None


def _explain_nodes(
    given: onnx.ModelProto | onnx.GraphProto,
    transformations: Sequence[OneTransformation],
    names: Iterable[str],
    best: int | None,
    folder: Folder,
    *,
    in_turn: bool,
) -> list[NodeExplanation]:
    graph = graph_of(given)
    functions = list(given.functions) if isinstance(given, onnx.ModelProto) else []
    around = Surroundings(graph)
    chosen = chosen_nodes(around, names)
    asked = [_asked(around, index) for index in chosen]
    in_float = _in_float(graph, functions) if any(map(_quantizes, transformations)) else {}
    tracer = Tracer(around, functions, best)
    answers: dict[int, list[tuple[tuple[int, ...], NodeAnswer]]] = {index: [] for index in chosen}
    left_out: Counter[int] = Counter()
    now = {index: index for index in chosen}  # present index -> the one at the beginning
    for number, transformation in enumerate(transformations):
        subject = subject_of(transformation)
        if in_turn and number:
            around = Surroundings(graph)
            now = _positions(around, asked)
            tracer = Tracer(around, functions, best)
        places, more = tracer.places(subject, now)
        left_out.update({now[index]: count for index, count in more.items()})
        step = None
        if in_turn or any(place.nodes for place in places):
            step = _step(given, transformation, subject, folder, in_place=in_turn)
        fates = Fates(step)
        for place in places:
            answers[now[place.node]].append(place.settled(fates))
    result = []
    for node in asked:
        sorted_answers = [answer for _, answer in sorted(answers[node.index], key=lambda pair: pair[0])]
        kept = tuple(sorted_answers[:best])
        more_of_it = left_out[node.index] + len(sorted_answers) - len(kept)
        why = in_float.get(node.output)
        result.append(NodeExplanation(node.index, node.name, node.op_type, node.label, why, kept, more_of_it))
    return result


def _asked(around: Surroundings, index: int) -> _Asked:
    node = around.nodes[index]
    return _Asked(index, node.name, node.op_type, next(filter(None, node.output), ""), label(node))


def _positions(around: Surroundings, asked: Iterable[_Asked]) -> dict[int, int]:
    """Present index -> index at the beginning, of the nodes that are still there."""
    by_key: dict[str, int] = {}
    for index, node in enumerate(around.nodes):
        for key in filter(None, (*node.output, node.name)):
            by_key.setdefault(key, index)
    found = ((node.position(around.nodes, by_key), node.index) for node in asked)
    return {position: index for position, index in found if position is not None}


def _step(
    given: onnx.ModelProto | onnx.GraphProto,
    transformation: OneTransformation,
    subject: Subject,
    folder: Folder,
    *,
    in_place: bool,
) -> Step | None:
    """What a run of the transformation does; None for lists and for patterns whose replacement changes nothing."""
    if isinstance(transformation, list | tuple) or all(map(_changes_nothing, subject.pairs)):
        return None
    rewritten = given if in_place else copy.deepcopy(given)
    one: Any = transformation
    # What finishing adds matters to later transformations only.
    report = rewrite(rewritten, [one], prepare=False, seed=0, on_error="continue", folder=folder, finish=in_place)
    return report.steps[0]


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


def _in_float(graph: onnx.GraphProto, functions: Sequence[onnx.FunctionProto]) -> dict[str, str]:
    """By what an operator writes: why it cannot be quantized, where that is its own fault and not the run's."""
    left = account_of(graph, declared_shapes(graph), None, functions).left
    return {one.output: one.text for one in left if not one.place and one.reason != "not_run"}
