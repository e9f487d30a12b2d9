"""Names in a graph and in the bodies nested in it.

A body reads tensors of the graphs around it by name. Steps rewrite the outer graph only, so a name that a body reads
has to go on existing; these functions tell which ones those are.
"""

from __future__ import annotations

from onnx import GraphProto, NodeProto

from onnxgraft.graph.bodies import bodies


def outer_reads(node: NodeProto) -> set[str]:
    """Names that the bodies of a node read and do not define themselves."""
    reads: set[str] = set()
    for body in bodies(node):
        reads |= _free_names(body)
    return reads


def body_reads(graph: GraphProto) -> set[str]:
    """Names that any nested body reads from `graph` or from around it."""
    reads: set[str] = set()
    for node in graph.node:
        if node.attribute:
            reads |= outer_reads(node)
    return reads


def all_names(graph: GraphProto) -> set[str]:
    """Every name of a tensor or node, nested bodies included: what a fresh name has to differ from."""
    names: set[str] = set()
    pending = [graph]
    while pending:
        current = pending.pop()
        for values in (current.input, current.output, current.value_info, current.initializer):
            names.update(value.name for value in values)
        names.update(sparse.values.name for sparse in current.sparse_initializer)
        for node in current.node:
            names.update((node.name, *node.input, *node.output))
            if node.attribute:
                pending += bodies(node)
    return names


def _free_names(body: GraphProto) -> set[str]:
    """Defined first, then read: a body may be unsorted, and an outer name is one that nothing in it defines."""
    defined = {value.name for value in body.input} | {tensor.name for tensor in body.initializer}
    defined.update(sparse.values.name for sparse in body.sparse_initializer)
    reads = {value.name for value in body.output}
    for node in body.node:
        defined.update(node.output)
        reads.update(node.input)
        if node.attribute:
            reads |= outer_reads(node)
    return reads - defined - {""}
