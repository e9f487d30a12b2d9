"""Exact comparison of graphs in which only invented names may differ.

Both graphs are brought to one form: invented names are numbered in the order in which the nodes mention them.
Then the serialized bytes must be equal, so nothing is left out.  A name is invented if the graph before the
pass held it nowhere.
"""

from collections.abc import Collection

from onnx import GraphProto, NodeProto

from onnxgraft.nested_bodies import bodies


class Renaming:
    """Numbers the invented names of one graph; tensors and nodes are counted separately."""

    def __init__(self, graph: GraphProto, known: Collection[str]) -> None:
        self._known = known
        self._tensors: dict[str, str] = {}
        self._nodes: dict[str, str] = {}
        self.form = GraphProto()
        self.form.CopyFrom(graph)
        self._graph(self.form)

    def tensor(self, name: str) -> str:
        if not name or name in self._known:
            return name
        return self._tensors.setdefault(name, f"invented tensor {len(self._tensors)}")

    def node(self, node: NodeProto) -> NodeProto:
        """A copy of `node` in the common form."""
        result = NodeProto()
        result.CopyFrom(node)
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


def dump(graph: GraphProto, indent: str = "") -> str:
    """The graph as text, one line per node, to read in a failure report."""
    lines = [
        f"{indent}inputs {[v.name for v in graph.input]} outputs {[v.name for v in graph.output]}",
        f"{indent}initializers {[t.name for t in graph.initializer]}"
        f" sparse {[s.values.name for s in graph.sparse_initializer]}"
        f" value_info {[v.name for v in graph.value_info]}",
    ]
    for index, node in enumerate(graph.node):
        plain = ", ".join(a.name for a in node.attribute)
        label = f"{index:3} {node.name or '-'}"
        lines.append(f"{indent}{label}: {', '.join(node.output)} = {node.op_type}({', '.join(node.input)}) {plain}")
        lines += [dump(body, indent + "      ") for body in bodies(node)]
    return "\n".join(lines)


def difference(expected: GraphProto, actual: GraphProto, known: Collection[str]) -> str | None:
    """None if the graphs are equal but for invented names, else both of them as text."""
    forms = [Renaming(graph, known).form for graph in (expected, actual)]
    if serialized(forms[0]) == serialized(forms[1]):
        return None
    return "expected\n" + dump(forms[0]) + "\nactual\n" + dump(forms[1])
