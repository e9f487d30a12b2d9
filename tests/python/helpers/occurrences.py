"""The smallest graph in which a pattern occurs, made from the pattern's own strings."""

from collections.abc import Mapping, Sequence
from typing import Any

import numpy as np
import numpy.typing as npt
from onnx import GraphProto, NodeProto, TensorProto, helper, numpy_helper

from oracle.notation import parse_pair

Array = npt.NDArray[Any]


def occurrence(
    pattern: Sequence[str],
    tensors: Mapping[str, Array] | None = None,
    attributes: Mapping[int, Mapping[str, Any]] | None = None,
) -> GraphProto:
    """Tensor "7" of the pattern is "t7" here; initializers have the values of `tensors`, or else one zero."""
    graph = GraphProto(name="occurrence")
    nodes = parse_pair(pattern, []).pattern
    written = {node.output for node in nodes}
    known: set[str] = set()
    for position, node in enumerate(nodes):
        for link in node.inputs:
            if link.id in written | known:
                continue
            known.add(link.id)
            if link.initializer:
                add_tensor(graph, f"t{link.id}", (tensors or {}).get(link.id, np.zeros(1, np.float32)))
            else:
                graph.input.append(helper.make_tensor_value_info(f"t{link.id}", TensorProto.FLOAT, None))
        added = graph.node.add(op_type=node.op, input=[f"t{link.id}" for link in node.inputs])
        added.output.append(f"t{node.output}")
        set_attributes(added, **(attributes or {}).get(position, {}))
    read = {link.id for node in nodes for link in node.inputs}
    for node in nodes:
        if node.output not in read:
            graph.output.append(helper.make_tensor_value_info(f"t{node.output}", TensorProto.FLOAT, None))
    return graph


def add_tensor(graph: GraphProto, name: str, values: Array) -> None:
    graph.initializer.append(numpy_helper.from_array(values, name))


def set_attributes(node: NodeProto, **values: Any) -> NodeProto:
    node.attribute.extend(helper.make_attribute(name, value) for name, value in values.items())
    return node


def arrays(graph: GraphProto) -> dict[str, Array]:
    return {tensor.name: numpy_helper.to_array(tensor) for tensor in graph.initializer}


def same(left: Array, right: Array) -> bool:
    """Equal in element type, shape and every bit."""
    return left.dtype == right.dtype and left.shape == right.shape and left.tobytes() == right.tobytes()


def packed(scales: Array, upper: int = 0) -> Array:
    """32-bit floats in the low halves of 64-bit words."""
    words: Array = scales.view(np.uint32).astype(np.uint64)
    return words | np.full_like(words, upper << 32)
