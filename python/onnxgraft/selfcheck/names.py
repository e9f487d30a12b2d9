"""Which tensor names a node reads, its nested bodies included, and which names a graph holds at all."""

from __future__ import annotations

from onnx import GraphProto, NodeProto

from onnxgraft.graph.bodies import bodies


def body_reads(node: NodeProto) -> set[str]:
    """What the nested bodies of a node take from the graph around them."""
    return {name for body in bodies(node) for name in _from_outside(body, set())}


def reads(node: NodeProto) -> set[str]:
    """All that has to be computed before the node."""
    return {name for name in node.input if name} | body_reads(node)


def defined_in_bodies(graph: GraphProto) -> set[str]:
    """Names that nested bodies define for themselves, at any depth."""
    names: set[str] = set()
    for node in graph.node:
        for body in bodies(node):
            names |= _given(body) | {name for inner in body.node for name in inner.output} | defined_in_bodies(body)
    return names - {""}


def _given(graph: GraphProto) -> set[str]:
    names = {value.name for value in graph.input} | {tensor.name for tensor in graph.initializer}
    return names | {sparse.values.name for sparse in graph.sparse_initializer}


def _from_outside(body: GraphProto, enclosing: set[str]) -> set[str]:
    known, taken = enclosing | _given(body), set()
    for node in body.node:
        taken |= {name for name in node.input if name} - known
        for inner in bodies(node):
            taken |= _from_outside(inner, known)
        known |= set(node.output)
    return taken | ({value.name for value in body.output} - known)


def sources(graph: GraphProto) -> set[str]:
    """Tensors that are there without being computed."""
    return _given(graph)
