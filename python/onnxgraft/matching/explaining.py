"""`explain`: what came closest to a match, and what to do about it."""

from __future__ import annotations

from dataclasses import dataclass

import onnx

from onnxgraft.abstract_transformation import AbstractTransformation, find_occurrences, nearest_miss
from onnxgraft.catalogue import Transformation
from onnxgraft.catalogue.notation import read_pair
from onnxgraft.graph.name_check import telling_bad_texts
from onnxgraft.graph.surroundings import Surroundings
from onnxgraft.io.given import Readable, opened
from onnxgraft.matching import hints
from onnxgraft.matching.subject import Lists, graph_of, subject_of
from onnxgraft.texts import preformatted


@dataclass(frozen=True)
class Explanation:
    """The result of a pattern on a graph: the number of its matches, or the attempt that got furthest.

    If the pattern matches, `reason` is "matches", `matched` equals `of`, and the fields that describe a failure are
    None.
    """

    transformation: str
    pattern_index: int  # which of its patterns, from 0
    pattern: tuple[str, ...]
    replacement: tuple[str, ...]
    matches: int
    matched: int  # pattern nodes that matched
    of: int  # nodes of the pattern
    last_node: int | None  # index in graph.node of the node matched last
    pattern_node: int | None  # number of the pattern node that could not be matched
    node: int | None  # index of the node that was tried for it
    node_name: str | None
    reason: str  # identifier, such as "not_initializer"
    input: int | None  # input position, if the reason has one
    tensor: str | None
    reader: int | None  # index of another node that reads the tensor
    text: str
    hint: str | None  # what it means or what would help, if that is known

    def __str__(self) -> str:
        text = f"{self.transformation}, pattern {self.pattern_index}: {self.text}"
        return f"{text}. Hint: {self.hint}" if self.hint else text

    def _repr_html_(self) -> str:
        return preformatted(str(self))


_WITH_INPUT = frozenset({"input_omitted", "not_initializer", "rest_not_initializer", "other_position"})


@telling_bad_texts
def explain(
    graph: Readable,
    transformation: str | type[AbstractTransformation] | AbstractTransformation | Transformation | Lists,
) -> list[Explanation]:
    """Reports for every pattern of a transformation how often it matches, or why it does not.

    Like `find`, it checks all patterns on the graph as it is and runs no callback. If a callback refuses a match, the
    report of a run shows it with the reason.

    Args:
        graph: The graph; or a model, or the path of one, for its graph.
        transformation: A short name, a class, an instance or a row of the catalogue; a pattern, such as
            `["Conv:0,1i->2", "Relu:2->3"]`; or a pattern and its replacement, two lists.

    Returns:
        One explanation per pattern, in the order of the patterns.

    Raises:
        UnknownTransformationError: No transformation has that short name.
        ValueError: A pattern or replacement of the transformation does not follow the notation.
    """
    graph = opened(graph)
    searched, subject = graph_of(graph), subject_of(transformation)
    surroundings = Surroundings(searched)
    functions = list(graph.functions) if isinstance(graph, onnx.ModelProto) else []
    explanations = []
    for number, (pattern, replacement) in enumerate(subject.pairs):
        found = find_occurrences(searched, pattern, replacement)
        miss = None if found else nearest_miss(searched, pattern, replacement)
        head = (subject.name, number, pattern, replacement, len(found))
        if miss is None:
            nodes = [searched.node[index] for match in found for index in match["nodes"]]
            hint = hints.on_matches(surroundings, subject.name, nodes)
            size, times = len(pattern), "once" if len(found) == 1 else f"{len(found)} times"
            text = f"matches {times}; a run shows whether the transformation accepts each match"
            explanations.append(
                Explanation(*head, size, size, None, None, None, None, "matches", None, None, None, text, hint)
            )
            continue
        tried = None if miss["node"] is None else searched.node[miss["node"]]
        hint = hints.on_miss(hints.Miss(surroundings, read_pair(pattern, replacement)[0], functions, tried, miss))
        explanations.append(
            Explanation(
                *head,
                matched=miss["matched"],
                of=len(pattern),
                last_node=miss["last_node"],
                pattern_node=miss["pattern_node"],
                node=miss["node"],
                node_name=None if tried is None else tried.name,
                reason=miss["reason"],
                input=miss["input"] if miss["reason"] in _WITH_INPUT else None,
                tensor=miss["tensor"],
                reader=miss["reader"],
                text=miss["text"],
                hint=hint,
            )
        )
    return explanations
