"""The tensor names that a node reads, nested bodies included, and all names in a graph."""

from collections.abc import Iterator

from onnx import GraphProto, NodeProto


def bodies(node: NodeProto) -> Iterator[GraphProto]:
    for attribute in node.attribute:
        yield from ([attribute.g] if attribute.HasField("g") else attribute.graphs)


def all_names(graph: GraphProto) -> set[str]:
    names = {value.name for field in (graph.input, graph.output, graph.value_info) for value in field}
    names |= {tensor.name for tensor in graph.initializer} | {one.values.name for one in graph.sparse_initializer}
    for node in graph.node:
        names |= {node.name, *node.input, *node.output}.union(*(all_names(body) for body in bodies(node)))
    return names


def body_reads(node: NodeProto) -> set[str]:
    """The names that the nested bodies of a node read from the outer graph."""
    return {name for body in bodies(node) for name in _from_outside(body, set())}


def reads(node: NodeProto) -> set[str]:
    """Everything that must be computed before the node."""
    return {name for name in node.input if name} | body_reads(node)


def _from_outside(body: GraphProto, enclosing: set[str]) -> set[str]:
    known = enclosing | {value.name for value in body.input} | {tensor.name for tensor in body.initializer}
    known |= {sparse.values.name for sparse in body.sparse_initializer}
    taken: set[str] = set()
    for node in body.node:
        taken |= {name for name in node.input if name} - known
        for inner in bodies(node):
            taken |= _from_outside(inner, known)
        known |= set(node.output)
    return taken | ({value.name for value in body.output} - known)
