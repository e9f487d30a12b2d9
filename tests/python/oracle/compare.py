"""Exact comparison of graphs in which only invented names may differ.

Both graphs are brought to one form: invented names are numbered in the order in which the nodes mention them. Then the
serialized bytes must be equal, so nothing is left out. A name is invented if the graph before the pass did not contain
it.
"""

from collections.abc import Collection
from copy import deepcopy

from onnx import GraphProto, NodeProto
from onnx.printer import to_text

from .names import bodies


class Renaming:
    """Numbers the invented names of one graph; tensors and nodes are counted separately."""

    def __init__(self, graph: GraphProto, known: Collection[str]) -> None:
        self._known = known
        self._tensors: dict[str, str] = {}
        self._nodes: dict[str, str] = {}
        self.form = deepcopy(graph)
        self._graph(self.form)

    def tensor(self, name: str) -> str:
        if not name or name in self._known:
            return name
        return self._tensors.setdefault(name, f"invented tensor {len(self._tensors)}")

    def node(self, node: NodeProto) -> NodeProto:
        """A copy of `node` in the common form."""
        result = deepcopy(node)
        self._node(result)
        return result

    def _node(self, node: NodeProto) -> None:
        if node.name and node.name not in self._known:
            node.name = self._nodes.setdefault(node.name, f"invented node {len(self._nodes)}")
        for names in (node.input, node.output):
            names[:] = [self.tensor(name) for name in names]
        for body in bodies(node):
            self._graph(body)

    def _graph(self, graph: GraphProto) -> None:
        for node in graph.node:
            self._node(node)
        for field in (graph.initializer, graph.input, graph.output, graph.value_info):
            for entry in field:
                entry.name = self.tensor(entry.name)
        for sparse in graph.sparse_initializer:
            sparse.values.name = self.tensor(sparse.values.name)
        for annotation in graph.quantization_annotation:
            annotation.tensor_name = self.tensor(annotation.tensor_name)


def serialized(graph: GraphProto | NodeProto) -> bytes:
    return graph.SerializeToString(deterministic=True)


def difference(expected: GraphProto, actual: GraphProto, known: Collection[str]) -> str | None:
    """None if the graphs are equal except for invented names, else both of them as text."""
    forms = [Renaming(graph, known).form for graph in (expected, actual)]
    if serialized(forms[0]) == serialized(forms[1]):
        return None
    return "expected\n" + to_text(forms[0]) + "\nactual\n" + to_text(forms[1])
