"""Faults that a rewrite must not cause: a second writer of a tensor, a tensor that no longer exists."""

from collections import Counter
from collections.abc import Collection
from typing import Any

from onnx import GraphProto

from onnxgraft.graph.names import reads, sources
from onnxgraft.selfcheck.soundness import problems


def writers(graph: GraphProto) -> Counter[str]:
    return Counter(name for node in graph.node for name in node.output if name)


def dangling(graph: GraphProto) -> set[str]:
    """Names that are read or returned, and have no writer."""
    wanted = {value.name for value in graph.output}.union(*(reads(node) for node in graph.node))
    return wanted - sources(graph) - writers(graph).keys()


def is_sound(graph: Any, given: Collection[str] = ()) -> bool:
    """Every tensor has one writer, before its readers; the callback has to make the new initializers."""
    lost = {name for name in dangling(graph) if "_new" not in name}
    return lost <= set(given) and not problems(graph).keys() & {"writers", "order"}
