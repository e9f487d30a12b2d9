"""Every tensor that a model stores, wherever it stands."""

from __future__ import annotations

from collections.abc import Iterator

import onnx


def stored_tensors(model: onnx.ModelProto) -> Iterator[onnx.TensorProto]:
    """Yields initializers, sparse initializers and tensors in node attributes, nested bodies and functions included."""
    graphs = [model.graph]
    for function in model.functions:
        for node in function.node:
            yield from _attribute_tensors(node, graphs)
    while graphs:
        graph = graphs.pop()
        yield from graph.initializer
        for sparse in graph.sparse_initializer:
            yield from (sparse.values, sparse.indices)
        for node in graph.node:
            yield from _attribute_tensors(node, graphs)


def _attribute_tensors(node: onnx.NodeProto, graphs: list[onnx.GraphProto]) -> Iterator[onnx.TensorProto]:
    """Yields the tensors of a node's attributes and adds its nested bodies to `graphs`."""
    kinds = onnx.AttributeProto
    for attribute in node.attribute:
        if attribute.type == kinds.TENSOR:
            yield attribute.t
        elif attribute.type == kinds.TENSORS:
            yield from attribute.tensors
        elif attribute.type == kinds.SPARSE_TENSOR:
            yield from (attribute.sparse_tensor.values, attribute.sparse_tensor.indices)
        elif attribute.type == kinds.SPARSE_TENSORS:
            for sparse in attribute.sparse_tensors:
                yield from (sparse.values, sparse.indices)
        elif attribute.type == kinds.GRAPH:
            graphs.append(attribute.g)
        elif attribute.type == kinds.GRAPHS:
            graphs.extend(attribute.graphs)
