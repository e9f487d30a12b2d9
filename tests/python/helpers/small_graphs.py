"""Graphs written as a line per node: `Conv x w -> y`; two blanks are an omitted input."""

from __future__ import annotations

from collections.abc import Sequence

from onnx import GraphProto, TensorProto, ValueInfoProto, helper


def graph_of(lines: Sequence[str], *, inputs: Sequence[str] = (), outputs: Sequence[str] = ()) -> GraphProto:
    """A graph of the nodes, named node_0, node_1 and so on."""
    nodes = []
    for number, line in enumerate(lines):
        left, right = line.split("->")
        operator, *reads = left.removesuffix(" ").split(" ")
        nodes.append(helper.make_node(operator, reads, right.split(), name=f"node_{number}"))

    def values(names: Sequence[str]) -> list[ValueInfoProto]:
        return [helper.make_tensor_value_info(name, TensorProto.FLOAT, None) for name in names]

    return helper.make_graph(nodes, "small", values(inputs), values(outputs))


def operators(graph: GraphProto) -> str:
    """The operators in list order, as one text."""
    return " ".join(node.op_type for node in graph.node)
