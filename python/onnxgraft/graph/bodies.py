"""The graphs inside nodes: the branches of an `If`, the bodies of `Loop` and `Scan`."""

from __future__ import annotations

import functools
from collections.abc import Iterator, Sequence

import onnx
from onnx import AttributeProto, GraphProto, NodeProto

_KINDS = (AttributeProto.GRAPH, AttributeProto.GRAPHS)


def bodies(node: NodeProto) -> Iterator[GraphProto]:
    """The graphs in the attributes of a node, without those inside them."""
    for attribute in node.attribute:
        if attribute.type in _KINDS:
            yield from in_attribute(attribute)


@functools.cache
def can_hold_bodies(op_type: str, domain: str) -> bool:
    """Whether nodes of an operator may hold graphs: a standard operator without such attributes does not."""
    if domain not in ("", "ai.onnx") or not onnx.defs.has(op_type):
        return True
    kinds = (onnx.defs.OpSchema.AttrType.GRAPH, onnx.defs.OpSchema.AttrType.GRAPHS)
    return any(attribute.type in kinds for attribute in onnx.defs.get_schema(op_type).attributes.values())


def in_attribute(attribute: AttributeProto) -> Sequence[GraphProto]:
    """The graphs that an attribute holds."""
    if attribute.type == AttributeProto.GRAPH:
        return (attribute.g,)
    return attribute.graphs if attribute.type == AttributeProto.GRAPHS else ()


def all_bodies(node: NodeProto) -> Iterator[GraphProto]:
    """The graphs in the attributes of a node, each before those inside it."""
    for body in bodies(node):
        yield from with_bodies(body)


def with_bodies(graph: GraphProto) -> Iterator[GraphProto]:
    """The graph, then the bodies of its nodes at any depth."""
    todo = [graph]
    while todo:
        current = todo.pop()
        yield current
        todo += (body for node in current.node if node.attribute for body in bodies(node))
