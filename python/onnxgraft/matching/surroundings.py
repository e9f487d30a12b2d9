"""Who writes and reads each tensor of a graph: an index for looking around a node, built once, never updated."""

from __future__ import annotations

from collections.abc import Iterator

from onnx import AttributeProto, GraphProto, NodeProto, TensorProto


class Surroundings:
    """Look-ups by tensor name. Nothing is copied: nodes and tensors are those of the graph."""

    def __init__(self, graph: GraphProto) -> None:
        self.graph = graph
        self.initializers: dict[str, TensorProto] = {tensor.name: tensor for tensor in graph.initializer}
        self.inputs = {value.name for value in graph.input}
        self.outputs = {value.name for value in graph.output}
        self.writer: dict[str, NodeProto] = {}
        self._readers: dict[str, list[int]] = {}
        self.operators: dict[str, list[NodeProto]] = {}
        for index, node in enumerate(graph.node):
            self.operators.setdefault(node.op_type, []).append(node)
            for name in node.output:
                self.writer.setdefault(name, node)
            for name in dict.fromkeys(node.input):
                self._readers.setdefault(name, []).append(index)

    def readers(self, tensor: str) -> list[int]:
        """Indices of the nodes that read the tensor, each once; nested bodies do not count."""
        return self._readers.get(tensor, [])

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
        for index, node in enumerate(self.graph.node):
            for body in bodies(node):
                names = {name for inner in body.node for name in inner.input} | {value.name for value in body.output}
                if tensor in names:
                    return index
        return None


def bodies(node: NodeProto) -> Iterator[GraphProto]:
    """The graphs in the attributes of a node, and those of the nodes in them."""
    todo = [node]
    while todo:
        for attribute in todo.pop().attribute:
            found = [attribute.g] if attribute.type == AttributeProto.GRAPH else list(attribute.graphs)
            for body in found:
                yield body
                todo.extend(body.node)


def node_text(graph: GraphProto, index: int) -> str:
    """A node in words, as the matcher's messages have it: "Conv node 3 (writes 'y')"."""
    node = graph.node[index]
    written = next((name for name in node.output if name), None)
    return f"{node.op_type} node {index}" + (f" (writes '{written}')" if written else "")
