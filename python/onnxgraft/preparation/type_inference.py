"""Types and shapes of a model's tensors, without passing the weights to the inference.

Inference takes the model as bytes, and one message cannot exceed 2 GB. So it gets an outline: all nodes, and only those
initializers that may be shapes, axes or bounds. The others are described as inputs.
"""

from __future__ import annotations

import logging
import math

from onnx import ModelProto, TensorProto, ValueInfoProto, helper, numpy_helper, shape_inference
from onnx.external_data_helper import uses_external_data

from onnxgraft.graph.onnx_calls import infer_shapes
from onnxgraft.graph.tensor_values import read_values

LOG = logging.getLogger(__name__)

# Before this version of the file format, every initializer had to be listed among the graph's inputs.
_FIRST_IR_WITHOUT_LISTING = 4

# Larger initializers are not shapes.
_LARGEST_SHAPE = 1024


def lists_initializers(model: ModelProto) -> bool:
    """Whether the file format lists each initializer as an input. If not, callers may override listed ones."""
    return 0 < model.ir_version < _FIRST_IR_WITHOUT_LISTING


def inferred_values(model: ModelProto, folder: str) -> list[ValueInfoProto]:
    """The entries of `value_info` and the outputs, completed by inference unless inference fails."""
    try:
        inferred = infer_shapes(_outline(model, folder), data_prop=True)
    except (shape_inference.InferenceError, RuntimeError, ValueError) as error:
        LOG.warning("shapes are not inferred: %s", " ".join(str(error).split()))
        return list(model.graph.value_info)
    return [*inferred.value_info, *inferred.output]


def _outline(model: ModelProto, folder: str) -> ModelProto:
    outline = ModelProto(ir_version=model.ir_version)
    outline.opset_import.extend(model.opset_import)
    outline.functions.extend(model.functions)
    outline.graph.name = model.graph.name
    outline.graph.node.extend(model.graph.node)
    outline.graph.input.extend(model.graph.input)
    outline.graph.output.extend(model.graph.output)
    outline.graph.value_info.extend(model.graph.value_info)
    outline.graph.sparse_initializer.extend(model.graph.sparse_initializer)
    listed = {value.name for value in model.graph.input}
    settable = set() if lists_initializers(model) else listed
    for tensor in model.graph.initializer:
        small = _small_copy(tensor, folder) if tensor.name not in settable else None
        if small is not None:
            outline.graph.initializer.append(small)
        elif tensor.name not in listed:
            described = helper.make_tensor_value_info(tensor.name, tensor.data_type, list(tensor.dims))
            outline.graph.input.append(described)
    for node in outline.graph.node:
        if node.op_type == "TesselDequant":  # passes the shape on
            node.op_type, node.domain = "Identity", ""
            del node.input[1:], node.attribute[:]
    return outline


def _small_copy(tensor: TensorProto, folder: str) -> TensorProto | None:
    """The tensor with its values included; None if it is large or cannot be read."""
    if math.prod(tensor.dims) > _LARGEST_SHAPE:
        return None
    if not uses_external_data(tensor):
        return tensor
    array = read_values(tensor, folder)
    return None if array is None else numpy_helper.from_array(array, tensor.name)
