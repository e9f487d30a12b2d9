"""A graph of plain Python objects, with as much of the protobuf's interface as the matcher uses."""

from __future__ import annotations

from typing import Any


class Message:
    """Equal to nothing but itself, as identity is what tells nodes apart."""

    def __init__(self, **fields: Any) -> None:
        self.__dict__.update(fields)


class Node:
    __slots__ = ("attribute", "domain", "input", "name", "op_type", "output")

    def __init__(self, op_type: str = "", inputs: str = "", output: str = "") -> None:
        self.op_type, self.name, self.domain = op_type, "", ""
        self.input, self.output, self.attribute = inputs.split(), output.split(), list[Any]()

    def CopyFrom(self, other: Node) -> None:  # noqa: N802
        """As the protobuf's."""
        self.op_type, self.name, self.domain = other.op_type, other.name, other.domain
        self.input[:], self.output[:], self.attribute[:] = other.input, other.output, other.attribute


class Nodes(list[Node]):
    """Has its new nodes ready: the interpreter's own making of objects loses memory when it fails."""

    def __init__(self) -> None:
        self.ready = [Node() for _ in range(20)]

    def add(self) -> Node:
        """As the protobuf's."""
        self.append(self.ready[-1])
        return self.ready.pop()


def graph_of(*lines: str, initializers: str = "", outputs: str = "") -> Message:
    """A line is an operator, its inputs, "->" and its outputs."""
    nodes = Nodes()
    for line in lines:
        left, right = line.split("->")
        operator, _, inputs = left.partition(" ")
        nodes.append(Node(operator, inputs, right))
    return Message(
        name="graph",
        node=nodes,
        initializer=[Message(name=name) for name in initializers.split()],
        output=[Message(name=name) for name in outputs.split()],
        input=[],
        value_info=[],
        sparse_initializer=[],
        quantization_annotation=[],
    )


def lines_of(graph: Any) -> list[str]:
    return [f"{n.op_type} {' '.join(n.input)} -> {' '.join(n.output)}" for n in graph.node]
