"""Brings the forms in which exporters write constants and pools into the ones that the patterns name.

Each step keeps the computed function. The steps look at the outer graph only: in a model with nested bodies they would
have to follow names into them, so such a model is refused.
"""

from __future__ import annotations

from collections.abc import Callable, Sequence

import numpy as np
import onnx
from onnx import AttributeProto, GraphProto, ModelProto, NodeProto, TensorProto, helper, numpy_helper

_OPTIONAL_RESIZE_INPUTS = (1, 2)  # roi, scales: empty where sizes are given
_IMAGE_RANK = 4


def prepare(model: ModelProto) -> dict[str, int]:
    """Runs all steps in place; returns how often each one changed something."""
    nested = (AttributeProto.GRAPH, AttributeProto.GRAPHS)
    if any(attribute.type in nested for node in model.graph.node for attribute in node.attribute):
        raise ValueError("the graph has nested bodies, whose names these steps do not follow")
    ranks = _ranks(model)
    steps: dict[str, Callable[[GraphProto], int]] = {
        "Constant": constants_to_initializers,
        "Identity": identities_resolved,
        "Transpose": transposes_folded,
        "Resize": resize_inputs_filled,
        "ReduceMean": lambda graph: means_to_pools(graph, ranks),
    }
    return {name: step(model.graph) for name, step in steps.items()}


def constants_to_initializers(graph: GraphProto) -> int:
    """A `Constant` node becomes an initializer of the same name."""
    constants = [node for node in graph.node if node.op_type == "Constant"]
    converted = [(node, tensor) for node in constants if (tensor := _constant_value(node)) is not None]
    for node, tensor in converted:
        tensor.name = node.output[0]
        graph.initializer.append(tensor)
    _remove(graph, [node for node, _ in converted])
    return len(converted)


def identities_resolved(graph: GraphProto) -> int:
    """Readers of an `Identity` of an initializer read the initializer."""
    initializers = {tensor.name for tensor in graph.initializer}
    outputs = {value.name for value in graph.output}
    source: dict[str, str] = {}
    resolved = []
    for node in graph.node:
        known = node.op_type == "Identity" and (node.input[0] in initializers or node.input[0] in source)
        if known and node.output[0] not in outputs:
            source[node.output[0]] = source.get(node.input[0], node.input[0])
            resolved.append(node)
    for node in graph.node:
        for position, name in enumerate(node.input):
            node.input[position] = source.get(name, name)
    _remove(graph, resolved)
    return len(resolved)


def transposes_folded(graph: GraphProto) -> int:
    """A `Transpose` of an initializer becomes an initializer."""
    tensors = {tensor.name: tensor for tensor in graph.initializer}
    folded = [node for node in graph.node if node.op_type == "Transpose" and node.input[0] in tensors]
    for node in folded:
        axes = next((list(a.ints) for a in node.attribute if a.name == "perm"), None)
        values = numpy_helper.to_array(tensors[node.input[0]]).transpose(axes)
        graph.initializer.append(numpy_helper.from_array(np.ascontiguousarray(values), node.output[0]))
    read = {name for node in graph.node if node not in folded for name in node.input}
    for name in {node.input[0] for node in folded} - read - {value.name for value in graph.output}:
        graph.initializer.remove(tensors[name])
    _remove(graph, folded)
    return len(folded)


def resize_inputs_filled(graph: GraphProto) -> int:
    """A region or scales that a `Resize` leaves out become initializers without elements."""
    taken = {tensor.name for tensor in graph.initializer} | {name for n in graph.node for name in (*n.input, *n.output)}
    filled = 0
    for number, node in enumerate(node for node in graph.node if node.op_type == "Resize"):
        empty = [k for k in _OPTIONAL_RESIZE_INPUTS if k < len(node.input) and not node.input[k]]
        for position in empty:
            name = f"resize_{number}_{('roi', 'scales')[position - 1]}"
            while name in taken:
                name += "_"
            taken.add(name)
            graph.initializer.append(helper.make_tensor(name, TensorProto.FLOAT, [0], []))
            node.input[position] = name
        filled += bool(empty)
    return filled


def means_to_pools(graph: GraphProto, ranks: dict[str, int]) -> int:
    """A `ReduceMean` over the two spatial axes of an image that keeps them becomes a `GlobalAveragePool`."""
    tensors = {tensor.name: tensor for tensor in graph.initializer}
    changed = 0
    for node in graph.node:
        if node.op_type != "ReduceMean" or ranks.get(node.input[0]) != _IMAGE_RANK:
            continue
        attributes = {attribute.name: attribute for attribute in node.attribute}
        axes: Sequence[int] = attributes["axes"].ints if "axes" in attributes else ()
        if len(node.input) > 1 and node.input[1] in tensors:
            axes = numpy_helper.to_array(tensors[node.input[1]]).tolist()
        keeps = attributes["keepdims"].i if "keepdims" in attributes else 1
        if {axis % _IMAGE_RANK for axis in axes} == {2, 3} and keeps:
            node.op_type = "GlobalAveragePool"
            del node.attribute[:]
            del node.input[1:]
            changed += 1
    return changed


def _constant_value(node: NodeProto) -> TensorProto | None:
    """What a `Constant` node holds; None for strings and sparse tensors."""
    attribute = node.attribute[0]
    if attribute.name == "value":
        return TensorProto.FromString(attribute.t.SerializeToString())
    numbers = {"value_float": np.float32, "value_floats": np.float32, "value_int": np.int64, "value_ints": np.int64}
    if attribute.name in numbers:
        return numpy_helper.from_array(np.array(helper.get_attribute_value(attribute), numbers[attribute.name]))
    return None


def _ranks(model: ModelProto) -> dict[str, int]:
    """Number of dimensions of every tensor for which it can be inferred."""
    graph = onnx.shape_inference.infer_shapes(model).graph
    values = [*graph.input, *graph.value_info, *graph.output]
    return {v.name: len(v.type.tensor_type.shape.dim) for v in values if v.type.tensor_type.HasField("shape")}


def _remove(graph: GraphProto, nodes: Sequence[NodeProto]) -> None:
    gone = {node.output[0] for node in nodes}
    for index in reversed(range(len(graph.node))):
        if graph.node[index].output[0] in gone:
            del graph.node[index]
