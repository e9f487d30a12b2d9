"""The input of a hint: a nearest miss with the pattern and the graph around it."""

from __future__ import annotations

from collections.abc import Mapping, Sequence
from dataclasses import dataclass
from typing import Any

from onnx import FunctionProto, NodeProto

from onnxgraft.catalogue.notation import PatternNode
from onnxgraft.graph.surroundings import Surroundings, node_text

# Their result does not depend on the order of their inputs.
COMMUTATIVE = frozenset({"Add", "Mul", "Sum", "Max", "Min", "Mean", "And", "Or", "Xor", "Equal"})


@dataclass(frozen=True)
class Miss:
    """`node` is the one tried for the pattern node `wanted`, if there was one."""

    around: Surroundings
    pattern: tuple[PatternNode, ...]
    functions: Sequence[FunctionProto]
    node: NodeProto | None
    data: Mapping[str, Any]

    @property
    def reason(self) -> str:
        """The matcher's identifier."""
        return str(self.data["reason"])

    @property
    def role(self) -> int:
        """Number of the pattern node that found no match."""
        return int(self.data["pattern_node"])

    @property
    def wanted(self) -> PatternNode:
        """The pattern node that found no match."""
        return self.pattern[self.role]

    @property
    def tensor(self) -> str:
        """The tensor concerned, or an empty text."""
        return self.data["tensor"] or ""

    @property
    def slot(self) -> int:
        """The input position concerned."""
        return int(self.data["input"])

    @property
    def writer(self) -> NodeProto | None:
        """The node that writes the tensor concerned."""
        return self.around.writer.get(self.tensor)

    def text(self, index: int) -> str:
        """A node of the graph, described for a reader."""
        return node_text(self.around.graph, index)

    def neighbours(self) -> list[tuple[PatternNode, int, int]]:
        """Nodes that read the output of the tried node, where the pattern has `wanted`.

        Each with the pattern node that it would be, its index and the input position.
        """
        found = []
        for index in self.around.readers(self.node.output[0]) if self.node and self.node.output else ():
            reader = self.around.graph.node[index]
            for role in self.pattern:
                if role.op != reader.op_type or len(reader.input) < len(role.inputs):
                    continue
                for slot, link in enumerate(role.inputs):
                    if link.id == self.wanted.output and reader.input[slot] == self.node.output[0]:  # type: ignore[union-attr]
                        found.append((role, index, slot))
        return found
