"""Which names a graph holds, and which names of an outer graph the nested bodies of a node read."""

from __future__ import annotations

from collections.abc import Iterator

from onnx import GraphProto, NodeProto


def bodies(node: NodeProto) -> Iterator[GraphProto]:
    for attribute in node.attribute:
        if attribute.HasField("g"):
            yield attribute.g
        yield from attribute.graphs


def body_reads(node: NodeProto) -> set[str]:
    """Names that the nested bodies of `node` take from the graph that holds it."""
    return {name for body in bodies(node) for name in _outer_names(body, frozenset())}


def _outer_names(body: GraphProto, enclosing: frozenset[str]) -> set[str]:
    defined = set(enclosing)
    defined |= {v.name for v in body.input} | {t.name for t in body.initializer}
    defined |= {s.values.name for s in body.sparse_initializer}
    outer: set[str] = set()
    for node in body.node:
        outer |= {name for name in node.input if name} - defined
        for inner in bodies(node):
            outer |= _outer_names(inner, frozenset(defined))
        defined |= set(node.output)
    return outer | ({v.name for v in body.output if v.name} - defined)


def reads(node: NodeProto) -> set[str]:
    """All that must be there before `node` can run: its own inputs and what its bodies read."""
    return {name for name in node.input if name} | body_reads(node)


def all_names(graph: GraphProto) -> set[str]:
    """Every name of tensors and nodes in the graph and in all nested bodies."""
    names = {v.name for v in (*graph.input, *graph.output, *graph.value_info)}
    names |= {t.name for t in graph.initializer}
    for sparse in graph.sparse_initializer:
        names |= {sparse.values.name, sparse.indices.name}
    for annotation in graph.quantization_annotation:
        names |= {annotation.tensor_name, *(e.value for e in annotation.quant_parameter_tensor_names)}
    for node in graph.node:
        names |= {node.name, *node.input, *node.output}
        for body in bodies(node):
            names |= all_names(body)
    return names - {""}
