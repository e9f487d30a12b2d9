"""Names in a graph and in the bodies nested in it.

A body reads tensors of the outer graphs by name. Code that rewrites only the outer graph must keep those names; these
functions find them.
"""

from __future__ import annotations

from onnx import GraphProto, NodeProto

from onnxgraft.graph.bodies import all_bodies, bodies, with_bodies


def outer_reads(node: NodeProto) -> set[str]:
    """Names that the bodies of a node read and do not define themselves."""
    used: set[str] = set()
    for body in bodies(node):
        used |= _free_names(body)
    return used


def reads(node: NodeProto) -> set[str]:
    """Everything that must be computed before the node."""
    return outer_reads(node).union(filter(None, node.input))


def sources(graph: GraphProto) -> set[str]:
    """Tensors that exist without being computed."""
    names = {value.name for value in graph.input} | {tensor.name for tensor in graph.initializer}
    return names | {sparse.values.name for sparse in graph.sparse_initializer}


def defined_in_bodies(graph: GraphProto) -> set[str]:
    """Names that nested bodies define for themselves, at any depth."""
    names: set[str] = set()
    for node in graph.node:
        for body in all_bodies(node):
            names |= sources(body).union(*(inner.output for inner in body.node))
    return names - {""}


def body_reads(graph: GraphProto) -> set[str]:
    """Names that any nested body reads from `graph` or from around it."""
    used: set[str] = set()
    for node in graph.node:
        if node.attribute:
            used |= outer_reads(node)
    return used


def all_names(graph: GraphProto) -> set[str]:
    """Every name of a tensor or node, nested bodies included. A fresh name must differ from all of them."""
    names: set[str] = set()
    for current in with_bodies(graph):
        for values in (current.input, current.output, current.value_info, current.initializer):
            names.update(value.name for value in values)
        names.update(sparse.values.name for sparse in current.sparse_initializer)
        for node in current.node:
            names.update((node.name, *node.input, *node.output))
    return names


def _free_names(body: GraphProto) -> set[str]:
    """A node reads the outer tensor of a name until the body defines its own."""
    known, taken = sources(body), set()
    for node in body.node:
        taken |= reads(node) - known
        known.update(node.output)
    return taken | ({value.name for value in body.output} - known - {""})
