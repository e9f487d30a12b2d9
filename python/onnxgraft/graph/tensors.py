"""Every tensor that a model stores, in any place, and the bytes of its values."""

from __future__ import annotations

from collections.abc import Iterator
from itertools import chain
from typing import Literal, get_args

import numpy as np
import onnx
from onnx import TensorProto, numpy_helper

from onnxgraft.graph.bodies import all_bodies, with_bodies

# Fields in which a tensor may hold its values, except strings.
ValueField = Literal["raw_data", "float_data", "double_data", "int32_data", "int64_data", "uint64_data"]
VALUE_FIELDS: tuple[ValueField, ...] = get_args(ValueField)

# Types whose values have one stored form: as many bytes for each as NumPy uses.
_PLAIN_TYPES: dict[int, str] = {
    TensorProto.FLOAT: "<f4",
    TensorProto.DOUBLE: "<f8",
    TensorProto.FLOAT16: "<f2",
    TensorProto.INT8: "i1",
    TensorProto.INT16: "<i2",
    TensorProto.INT32: "<i4",
    TensorProto.INT64: "<i8",
    TensorProto.UINT8: "u1",
    TensorProto.UINT16: "<u2",
    TensorProto.UINT32: "<u4",
    TensorProto.UINT64: "<u8",
    TensorProto.BOOL: "?",
}


def stored_tensors(model: onnx.ModelProto) -> Iterator[onnx.TensorProto]:
    """Yields initializers, sparse initializers and tensors in node attributes, nested bodies and functions included."""
    nodes = (node for function in model.functions for node in function.node)
    graphs = chain(with_bodies(model.graph), (body for node in nodes for body in all_bodies(node)))
    for graph in graphs:
        yield from graph.initializer
        for sparse in graph.sparse_initializer:
            yield from (sparse.values, sparse.indices)
        for node in graph.node:
            yield from _attribute_tensors(node)
    for function in model.functions:
        for node in function.node:
            yield from _attribute_tensors(node)


def _attribute_tensors(node: onnx.NodeProto) -> Iterator[onnx.TensorProto]:
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


def raw_values(tensor: onnx.TensorProto, smallest: int = 0) -> bytes | None:
    """The bytes that `tensor` would have in a data file.

    Returns:
        None if they are fewer than `smallest`, or if its values are strings, packed or not in the tensor.
    """
    if tensor.HasField("raw_data"):
        return tensor.raw_data if len(tensor.raw_data) >= smallest else None
    dtype = _PLAIN_TYPES.get(tensor.data_type)
    if dtype is None or tensor.data_location == TensorProto.EXTERNAL:
        return None
    if np.dtype(dtype).itemsize * int(np.prod(tensor.dims, dtype=object)) < smallest:
        return None
    return numpy_helper.to_array(tensor).astype(dtype, copy=False).tobytes()
