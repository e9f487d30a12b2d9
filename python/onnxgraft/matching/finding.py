"""`find`: where the patterns of a transformation match."""

from __future__ import annotations

from dataclasses import dataclass

from onnxgraft.abstract_transformation import AbstractTransformation, find_occurrences
from onnxgraft.catalogue import Transformation
from onnxgraft.graph.name_check import telling_bad_texts
from onnxgraft.graph.surroundings import node_text
from onnxgraft.io.given import Readable
from onnxgraft.matching.subject import Lists, graph_of, subject_of


@dataclass(frozen=True)
class Match:
    """One occurrence of a pattern."""

    transformation: str
    pattern_index: int  # which of its patterns, from 0
    pattern: tuple[str, ...]
    nodes: tuple[int, ...]  # indices in graph.node, in the order of the pattern
    node_texts: tuple[str, ...]
    links: dict[str, str]  # id of the pattern -> tensor name

    def __str__(self) -> str:
        return f"{self.transformation}, pattern {self.pattern_index}: {', '.join(self.node_texts)}"


@telling_bad_texts
def find(
    graph: Readable,
    transformation: str | type[AbstractTransformation] | AbstractTransformation | Transformation | Lists,
) -> list[Match]:
    """Finds the occurrences of every pattern of a transformation, without replacing anything.

    All patterns are searched for in the graph as it is. When the transformation runs, later patterns see the result of
    earlier ones. So this function can list one operator under several patterns although a run replaces it once. It also
    lists matches that the transformation's callback would refuse.

    Args:
        graph: The graph; or a model, or the path of one, for its graph; nested bodies are not searched.
        transformation: A short name, a class, an instance or a row of the catalogue; a pattern, such as
            `["Conv:0,1i->2", "Relu:2->3"]`; or a pattern and its replacement, two lists.

    Returns:
        The matches pattern by pattern, in the order in which a run would replace them.

    Raises:
        UnknownTransformationError: No transformation has that short name.
        ValueError: A pattern or replacement of the transformation does not follow the notation.
    """
    searched, subject = graph_of(graph), subject_of(transformation)
    matches = []
    for number, (pattern, replacement) in enumerate(subject.pairs):
        for found in find_occurrences(searched, pattern, replacement):
            nodes = tuple(found["nodes"])
            texts = tuple(node_text(searched, index) for index in nodes)
            matches.append(Match(subject.name, number, pattern, nodes, texts, found["links"]))
    return matches
