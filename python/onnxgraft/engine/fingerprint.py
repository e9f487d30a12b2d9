"""A number for the function of a graph, independent of the names of its tensors and the order of its nodes.

Two graphs have equal fingerprints if each node of one has a counterpart in the other: same operator, same attributes,
same inputs. Initializers count by type and shape. So a transformation that draws new random weights or fresh names each
time gives the same fingerprint again.
"""

from __future__ import annotations

import math
from collections.abc import Iterator, Mapping

import onnx

from onnxgraft.graph.bodies import in_attribute

_LARGEST_VALUE = 1 << 12
_TENSOR = onnx.AttributeProto.TENSOR
_BODIES = (onnx.AttributeProto.GRAPH, onnx.AttributeProto.GRAPHS)


def fingerprint(graph: onnx.GraphProto) -> int:
    """The fingerprint of a graph; comparable within one process only."""
    return _of_graph(graph, {})


def _of_graph(graph: onnx.GraphProto, outer: Mapping[str, int]) -> int:
    # tensor -> a hash of its computation; nodes are in topological order
    known = dict(outer)
    known.update({value.name: hash(("input", value.name)) for value in graph.input})
    constants = {tensor.name: _of_tensor(tensor) for tensor in graph.initializer}
    sparse = {tensor.values.name: hash(("sparse", *tensor.dims)) for tensor in graph.sparse_initializer}
    known |= constants | sparse
    nodes = [_of_node(node, known) for node in graph.node]
    outputs = [(value.name, known.get(value.name, 0)) for value in graph.output]
    stored = sorted((*constants.values(), *sparse.values()))
    return hash((tuple(sorted(nodes)), tuple(outputs), tuple(stored)))


def _of_node(node: onnx.NodeProto, known: dict[str, int]) -> int:
    # A tensor that is read before it is written (the graph is not sorted) counts as any tensor.
    inputs = tuple([known.get(name, 0) if name else 1 for name in node.input])
    result = hash((node.op_type, node.domain, inputs, tuple(sorted(_of_attributes(node, known))), len(node.output)))
    for position, name in enumerate(node.output):
        known[name] = hash((result, position))
    return result


def _of_attributes(node: onnx.NodeProto, known: Mapping[str, int]) -> Iterator[int]:
    for attribute in node.attribute:
        if attribute.type in _BODIES:
            yield hash((attribute.name, *(_of_graph(body, known) for body in in_attribute(attribute))))
        elif attribute.type == _TENSOR and math.prod(attribute.t.dims) > _LARGEST_VALUE:
            yield hash((attribute.name, _of_tensor(attribute.t)))
        else:
            yield hash(attribute.SerializeToString())


def _of_tensor(tensor: onnx.TensorProto) -> int:
    return hash(("tensor", tensor.data_type, *tensor.dims))
