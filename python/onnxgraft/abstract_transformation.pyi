from collections.abc import Callable, Iterable, Sequence
from typing import Any, TypedDict

from onnx import GraphProto, NodeProto

class AbstractTransformation:
    def _replace_all_isomorphic_sub_graphs(
        self, graph: GraphProto, subgraph: Sequence[str], replacement: Sequence[str], debug: bool = False, **kwargs: Any
    ) -> int: ...
    def _on_replace_subgraph(
        self,
        graph: GraphProto,
        replaced_nodes: list[NodeProto],
        isomorphic_node_mapping: dict[int, int],
        isomorphic_links_mapping: dict[str, str],
        **kwargs: Any,
    ) -> bool: ...

class _Occurrence(TypedDict):
    nodes: list[int]
    links: dict[str, str]

class _NearestMiss(TypedDict):
    matched: int
    last_node: int | None
    pattern_node: int
    node: int | None
    reason: str
    input: int
    tensor: str | None
    reader: int | None
    text: str

class _Trace(TypedDict):
    pair: int
    node: int
    pattern_node: int
    occurrence: list[int] | None
    miss: _NearestMiss | None

def find_occurrences(graph: GraphProto, subgraph: Sequence[str], replacement: Sequence[str]) -> list[_Occurrence]: ...
def nearest_miss(graph: GraphProto, subgraph: Sequence[str], replacement: Sequence[str]) -> _NearestMiss | None: ...
def trace_nodes(
    graph: GraphProto, pairs: Iterable[tuple[Sequence[str], Sequence[str]]], nodes: Iterable[int]
) -> list[_Trace]: ...

_Node = tuple[str, tuple[tuple[str, bool], ...], str, bool]

def parse(
    subgraph: Sequence[str], replacement: Sequence[str]
) -> tuple[tuple[_Node, ...], tuple[tuple[_Node, int | None, bool], ...]]: ...
def observed(original: Callable[..., Any], watch: Callable[..., Any]) -> Callable[..., Any]: ...
