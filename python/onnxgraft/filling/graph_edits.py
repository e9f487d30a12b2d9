"""The few edits that filling makes: initializers, and the parameters of quantize nodes."""

from __future__ import annotations

from typing import Any

import numpy as np
import numpy.typing as npt
import onnx
from onnx import helper, numpy_helper

from onnxgraft.filling.activations import Activation
from onnxgraft.filling.float_operators import attribute
from onnxgraft.io.weight_store import WeightStore

Array = npt.NDArray[Any]


def put(graph: onnx.GraphProto, name: str, values: Array, store: WeightStore | None = None) -> None:
    """Gives the initializer of that name these values: a new one replaces the old one, which stays as it is.

    So a step that is undone finds the old one unchanged.
    """
    tensor = numpy_helper.from_array(np.ascontiguousarray(values).reshape(values.shape), name)
    remove(graph, name)
    graph.initializer.append(tensor if store is None else store.store(tensor))


def put_scales(graph: onnx.GraphProto, name: str, scales: npt.NDArray[np.float32]) -> None:
    """Packs dequantize scales: 64-bit words with the bits of a 32-bit float each, shape [len(scales)]."""
    words = np.ascontiguousarray(scales, np.float32).view(np.uint32).astype(np.uint64)
    tensor = helper.make_tensor(name, onnx.TensorProto.UINT64, [words.size], words)
    remove(graph, name)
    graph.initializer.append(tensor)


def remove(graph: onnx.GraphProto, name: str) -> None:
    """Removes the initializer of that name, if there is one. New ones are at the end, so the search starts there."""
    for index in range(len(graph.initializer) - 1, -1, -1):
        if graph.initializer[index].name == name:
            del graph.initializer[index]
            return


def set_parameters(node: onnx.NodeProto, activation: Activation) -> None:
    """Gives a quantize node its scale and offset, in this order, as its only attributes of these names."""
    kept = [one for one in node.attribute if one.name not in {"scale", "offset"}]
    del node.attribute[:]
    node.attribute.extend(kept)
    node.attribute.append(helper.make_attribute("scale", activation.scale))
    node.attribute.append(helper.make_attribute("offset", float(activation.offset)))


def parameters(node: onnx.NodeProto) -> Activation:
    """Scale and offset of a quantize node; 1 and 0 if they are missing."""
    return Activation(attribute(node, "scale", 1.0), round(attribute(node, "offset", 0.0)))


def label(node: onnx.NodeProto) -> str:
    """The name of the node in messages."""
    return f"{node.op_type} '{node.name or node.output[0]}'"
