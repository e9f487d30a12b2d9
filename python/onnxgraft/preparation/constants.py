"""`Constant` node -> initializer of the same name."""

from __future__ import annotations

import numpy as np
from onnx import NodeProto, TensorProto, helper, numpy_helper

from onnxgraft.preparation.workpiece import Workpiece, is_standard

_NUMBERS = {"value_float": np.float32, "value_floats": np.float32, "value_int": np.int64, "value_ints": np.int64}
_TEXTS = ("value_string", "value_strings")


def make_initializers(workpiece: Workpiece) -> int:
    """Converts all but sparse ones and those whose output the graph returns."""
    graph = workpiece.graph
    taken = workpiece.defined_names() | {value.name for value in graph.output} | {""}
    converted = {}
    for index, node in enumerate(graph.node):
        if is_standard(node, "Constant") and len(node.output) == 1 and node.output[0] not in taken:
            tensor = _value(node)
            if tensor is not None:
                tensor.name = node.output[0]
                taken.add(tensor.name)
                converted[index] = tensor
    for tensor in converted.values():
        workpiece.add(tensor)
    workpiece.remove_nodes(converted)
    return len(converted)


def _value(node: NodeProto) -> TensorProto | None:
    """The value of a `Constant`; None for a sparse tensor, or if it does not have exactly one value."""
    if len(node.attribute) != 1:
        return None
    attribute = node.attribute[0]
    if attribute.name == "value":
        tensor = TensorProto()
        tensor.CopyFrom(attribute.t)
        return tensor
    if attribute.name in _NUMBERS:
        values = np.array(helper.get_attribute_value(attribute), _NUMBERS[attribute.name])
        return numpy_helper.from_array(values)
    if attribute.name in _TEXTS:
        texts = [attribute.s] if attribute.name == "value_string" else list(attribute.strings)
        dims = [] if attribute.name == "value_string" else [len(texts)]
        return TensorProto(data_type=TensorProto.STRING, dims=dims, string_data=texts)
    return None
