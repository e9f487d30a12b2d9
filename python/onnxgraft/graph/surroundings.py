"""The writer and the readers of each tensor of a graph: an index that is built once and never updated."""

from __future__ import annotations

from collections.abc import Iterable
from functools import cached_property
from itertools import islice

from onnx import GraphProto, NodeProto, TensorProto

from onnxgraft.graph.bodies import all_bodies


class Surroundings:
    """Look-ups by tensor name. Nothing is copied: nodes and tensors are those of the graph."""

    def __init__(self, graph: GraphProto) -> None:
        self.graph = graph
        self.nodes = list(graph.node)

    @cached_property
    def _writers(self) -> dict[str, int]:
        """The first node that writes each tensor."""
        found: dict[str, int] = {}
        for index, node in enumerate(self.nodes):
            for name in node.output:
                found.setdefault(name, index)
        return found

    @cached_property
    def _readers(self) -> dict[str, list[int]]:
        found: dict[str, list[int]] = {}
        for index, node in enumerate(self.nodes):
            for name in dict.fromkeys(node.input[:]):
                found.setdefault(name, []).append(index)
        return found

    @cached_property
    def initializers(self) -> dict[str, TensorProto]:
        """By name."""
        return {tensor.name: tensor for tensor in self.graph.initializer}

    @cached_property
    def inputs(self) -> set[str]:
        """Names of the graph's inputs."""
        return {value.name for value in self.graph.input}

    @cached_property
    def outputs(self) -> set[str]:
        """Names of the graph's outputs."""
        return {value.name for value in self.graph.output}

    @cached_property
    def operators(self) -> dict[str, list[NodeProto]]:
        """The nodes of each operator."""
        found: dict[str, list[NodeProto]] = {}
        for node in self.nodes:
            found.setdefault(node.op_type, []).append(node)
        return found

    @cached_property
    def input_counts(self) -> dict[str, set[int]]:
        """The numbers of inputs that the nodes of each operator have, not counting omitted ones at the end."""
        found: dict[str, set[int]] = {}
        for node in self.nodes:
            inputs = node.input[:]
            count = len(inputs)
            while count and not inputs[count - 1]:
                count -= 1
            found.setdefault(node.op_type, set()).add(count)
        return found

    @cached_property
    def writer(self) -> dict[str, NodeProto]:
        """The node that writes a tensor; the first one if there are two."""
        return {name: self.nodes[index] for name, index in self._writers.items()}

    def readers(self, tensor: str) -> list[int]:
        """Indices of the nodes that read the tensor, each once; nested bodies do not count."""
        return self._readers.get(tensor, [])

    def neighbours(self, tensors: Iterable[str], besides: set[int], most: int) -> list[int]:
        """Indices of the nodes that write or read one of the tensors, in graph order, without those in `besides`.

        Of each tensor only the first `most` readers: thousands of nodes may read one tensor, and each may be looked up.
        """
        found: set[int] = set()
        for name in tensors:
            others = (index for index in self._readers.get(name, ()) if index not in besides)
            found.update(islice(others, most))
            if name in self._writers:
                found.add(self._writers[name])
        return sorted(found - besides)

    def constant(self, tensor: str) -> TensorProto | None:
        """The value of an initializer or of a `Constant` node with a tensor."""
        if tensor in self.initializers:
            return self.initializers[tensor]
        node = self.writer.get(tensor)
        if node is None or node.op_type != "Constant":
            return None
        return next((attribute.t for attribute in node.attribute if attribute.name == "value"), None)

    def is_constant(self, tensor: str) -> bool:
        """Whether it is an initializer or written by a `Constant` node of any kind."""
        node = self.writer.get(tensor)
        return tensor in self.initializers or (node is not None and node.op_type == "Constant")

    def body_reader(self, tensor: str) -> int | None:
        """Index of the first node whose nested bodies mention the tensor as an input or an output."""
        for index, node in enumerate(self.nodes):
            for body in all_bodies(node):
                names = {name for inner in body.node for name in inner.input} | {value.name for value in body.output}
                if tensor in names:
                    return index
        return None


def node_text(graph: GraphProto, index: int) -> str:
    """A description of a node, as in the matcher's messages: "Conv node 3 (writes 'y')"."""
    node = graph.node[index]
    written = next((name for name in node.output if name), None)
    return f"{node.op_type} node {index}" + (f" (writes '{written}')" if written else "")
