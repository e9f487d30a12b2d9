"""Nodes, attributes and tensors as text, for reports."""

from __future__ import annotations

import functools
import math
from collections.abc import Callable, Iterable, Sequence
from typing import Any, TypeAlias

import onnx
from onnx import numpy_helper

# A node apart from its graph: its bytes, or its fields.
Kept: TypeAlias = bytes | dict[str, Any]
# Element type and dimensions, or the bytes of a declared type.
TensorKind: TypeAlias = tuple[int, Sequence[int]] | bytes

_KINDS = onnx.AttributeProto
# Larger tensors are described by type and shape alone; longer texts are cut.
_MOST_VALUES = 8
_LONGEST = 80
# The bytes of larger nodes hold weights.
_LARGEST_KEPT = 1 << 12
# NumPy's names for the types: those of the field, with two exceptions.
_TYPE_NAMES = {number: name.lower() for name, number in onnx.TensorProto.DataType.items()}
_TYPE_NAMES |= {onnx.TensorProto.FLOAT: "float32", onnx.TensorProto.DOUBLE: "float64"}


def keep(node: onnx.NodeProto) -> Kept:
    """The node as it is now, apart from its graph: its bytes, or its fields if the bytes hold weights."""
    content = node.SerializeToString()
    return content if len(content) <= _LARGEST_KEPT else describe(content, None)


def describe(kept: Kept, index: int | None) -> dict[str, Any]:
    """The fields of a `NodeText`; `index` is the node's position in the graph."""
    if isinstance(kept, dict):
        return {**kept, "index": index}
    node = onnx.NodeProto.FromString(kept)
    return {
        "index": index,
        "op_type": node.op_type,
        "domain": node.domain,
        "name": node.name,
        "inputs": tuple(node.input[:]),
        "outputs": tuple(node.output[:]),
        "attributes": {str(attribute.name): attribute_text(attribute) for attribute in node.attribute},
    }


def type_name(data_type: int) -> str:
    """The name of an element type, such as "float32"."""
    return _TYPE_NAMES.get(data_type) or f"type {data_type}"


def tensor_text(tensor: onnx.TensorProto) -> str:
    """Type and shape of a tensor, such as "float32[64,3,3,3]"."""
    return shape_text((tensor.data_type, tensor.dims[:]))


def shape_text(kind: TensorKind) -> str:
    """The same from type and dimensions, or from the bytes of a declared type."""
    return type_text(kind) if isinstance(kind, bytes) else type_name(kind[0]) + str(kind[1]).replace(" ", "")


def value_text(value: onnx.ValueInfoProto) -> str:
    """Type and shape as declared, such as "float32[N,64,?]"; without brackets if the rank is unknown."""
    return type_text(value.type.SerializeToString())


@functools.lru_cache(maxsize=1024)
def type_text(content: bytes) -> str:
    """The same from the bytes of a type."""
    type_ = onnx.TypeProto.FromString(content)
    kind = type_.tensor_type
    if not type_.HasField("tensor_type"):
        return type_.WhichOneof("value") or "unknown"
    if not kind.HasField("shape"):
        return type_name(kind.elem_type)
    sizes = (str(size.dim_value) if size.HasField("dim_value") else size.dim_param or "?" for size in kind.shape.dim)
    return f"{type_name(kind.elem_type)}[{','.join(sizes)}]"


def attribute_text(attribute: onnx.AttributeProto) -> str:
    """A short description of an attribute's value."""
    text = _TEXTS.get(attribute.type, _unknown)(attribute)
    return text if len(text) <= _LONGEST else text[: _LONGEST - 1] + "…"


def _unknown(attribute: onnx.AttributeProto) -> str:
    return f"reference to {attribute.ref_attr_name}" if attribute.ref_attr_name else "without type"


def _floats(values: Iterable[float]) -> str:
    return "[" + ", ".join(f"{value:g}" for value in values) + "]"


def _decoded(text: bytes) -> str:
    return text.decode(errors="replace")


def _with_values(tensor: onnx.TensorProto) -> str:
    text = tensor_text(tensor)
    is_small = math.prod(tensor.dims) <= _MOST_VALUES and tensor.data_location != onnx.TensorProto.EXTERNAL
    try:
        return f"{text} {numpy_helper.to_array(tensor).tolist()}" if is_small else text
    except (TypeError, ValueError):  # the tensor is broken, which is not the report's concern
        return text


def _graph(graph: onnx.GraphProto) -> str:
    return f"graph '{graph.name}' of {len(graph.node)} nodes"


def _sparse(tensor: onnx.SparseTensorProto) -> str:
    return f"sparse {shape_text((tensor.values.data_type, tensor.dims[:]))}"


_TEXTS: dict[int, Callable[[onnx.AttributeProto], str]] = {
    _KINDS.FLOAT: lambda a: f"{a.f:g}",
    _KINDS.INT: lambda a: str(a.i),
    _KINDS.STRING: lambda a: _decoded(a.s),
    _KINDS.FLOATS: lambda a: _floats(a.floats),
    _KINDS.INTS: lambda a: str(list(a.ints)),
    _KINDS.STRINGS: lambda a: str([_decoded(text) for text in a.strings]),
    _KINDS.TENSOR: lambda a: _with_values(a.t),
    _KINDS.TENSORS: lambda a: ", ".join(map(tensor_text, a.tensors)),
    _KINDS.SPARSE_TENSOR: lambda a: _sparse(a.sparse_tensor),
    _KINDS.SPARSE_TENSORS: lambda a: ", ".join(map(_sparse, a.sparse_tensors)),
    _KINDS.GRAPH: lambda a: _graph(a.g),
    _KINDS.GRAPHS: lambda a: ", ".join(map(_graph, a.graphs)),
}
