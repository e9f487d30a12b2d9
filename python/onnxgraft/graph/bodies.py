"""The graphs inside nodes: the branches of an `If`, the bodies of `Loop` and `Scan`."""

from __future__ import annotations

from collections.abc import Iterator

from onnx import AttributeProto, GraphProto, NodeProto


def bodies(node: NodeProto) -> Iterator[GraphProto]:
    """The graphs in the attributes of a node, without those inside them."""
    for attribute in node.attribute:
        if attribute.type == AttributeProto.GRAPH:
            yield attribute.g
        elif attribute.type == AttributeProto.GRAPHS:
            yield from attribute.graphs
