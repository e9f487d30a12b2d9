"""A copy of a model that keeps its structure and none of its values.

The copy is built field by field from a list of what may be kept. Whatever else a file holds, now or in a later version
of the format, is therefore left out: documentation, metadata, training data, unknown fields, the places of data files.
Weights are not read.
"""

from __future__ import annotations

import math
import re
from collections.abc import Iterable, Sequence
from typing import Any

from onnx import (
    AttributeProto,
    FunctionProto,
    GraphProto,
    ModelProto,
    NodeProto,
    SparseTensorProto,
    TensorProto,
    TensorShapeProto,
    TypeProto,
    ValueInfoProto,
    numpy_helper,
)

# Longer lists of integers hold data, such as trees; shorter ones are pads, axes and the like.
LONGEST_LIST = 32
# "nearest_mode", "ij,jk->ik"; everything else in a string may be data.
_SETTING = re.compile(rb"[\w.,>\- ]{0,64}\Z")
# Attributes of a Constant, which are its value.
_VALUES = frozenset({"value_float", "value_floats", "value_int", "value_ints", "value_string", "value_strings"})
# Kind of an attribute: its field; and, if it holds messages, what copies one.
_PLAIN = {
    AttributeProto.FLOAT: "f",
    AttributeProto.INT: "i",
    AttributeProto.STRING: "s",
    AttributeProto.FLOATS: "floats",
    AttributeProto.INTS: "ints",
    AttributeProto.STRINGS: "strings",
}
_MESSAGES = {
    AttributeProto.TENSOR: ("t", "_tensor"),
    AttributeProto.TENSORS: ("tensors", "_tensor"),
    AttributeProto.SPARSE_TENSOR: ("sparse_tensor", "_sparse"),
    AttributeProto.SPARSE_TENSORS: ("sparse_tensors", "_sparse"),
    AttributeProto.GRAPH: ("g", "graph"),
    AttributeProto.GRAPHS: ("graphs", "graph"),
    AttributeProto.TYPE_PROTO: ("tp", "_type"),
    AttributeProto.TYPE_PROTOS: ("type_protos", "_type"),
}
_LISTS = frozenset(
    kind
    for kind, name in ((value.number, value.name) for value in AttributeProto.AttributeType.DESCRIPTOR.values)
    if name.endswith("S")
)


class Names:
    """Names as they are or, on request, renamed by number: each kind of name has a letter."""

    def __init__(self, *, renamed: bool) -> None:
        self._renamed = renamed
        self._made: dict[tuple[str, str], str] = {}

    def __call__(self, letter: str, name: str) -> str:
        """The name to write; an empty one stays empty, since it means an omitted tensor."""
        if not self._renamed or not name:
            return name
        return self._made.setdefault((letter, name), f"{letter}{len(self._made)}")

    def without(self, text: str) -> str:
        """A text in which replaced names are replaced too."""
        for (_, name), made in sorted(self._made.items(), key=lambda item: -len(item[0][1])):
            # A name counts only as a separate word: a short one is a part of many words.
            text = re.sub(rf"(?<![\w/.]){re.escape(name)}(?![\w/])", made, text)
        return text


def shapes_only(model: ModelProto, names: Names | None = None, *, keep_shapes: bool = False) -> ModelProto:
    """The structure of a model: operators, settings, links, types and shapes.

    Args:
        model: The model; it is not changed.
        names: The names of tensors, nodes and symbolic dimensions; as in the model by default.
        keep_shapes: Whether short vectors of INT64 keep their values, such as shapes, axes and bounds, which are not
            weights or biases.

    Returns:
        The copy. Its tensors have a type and a shape, and no data.
    """
    copier = _Copier(names or Names(renamed=False), keep_shapes=keep_shapes)
    made = ModelProto(
        ir_version=model.ir_version,
        producer_name=_short(model.producer_name),
        producer_version=_short(model.producer_version),
        graph=copier.graph(model.graph),
    )
    for entry in model.opset_import:
        made.opset_import.add(domain=entry.domain, version=entry.version)
    made.functions.extend(map(copier.function, model.functions))
    return made


def _short(text: str) -> str:
    return text if _SETTING.match(text.encode()) else ""


class _Copier:
    def __init__(self, names: Names, *, keep_shapes: bool) -> None:
        self._names = names
        self._keep_shapes = keep_shapes

    def graph(self, graph: GraphProto) -> GraphProto:
        made = GraphProto(name="graph")
        made.node.extend(map(self._node, graph.node))
        made.initializer.extend(map(self._tensor, graph.initializer))
        made.sparse_initializer.extend(map(self._sparse, graph.sparse_initializer))
        for name in ("input", "output", "value_info"):
            getattr(made, name).extend(map(self._declaration, getattr(graph, name)))
        return made

    def function(self, function: FunctionProto) -> FunctionProto:
        made = FunctionProto(name=function.name, domain=function.domain)
        _set_overload(made, function)
        made.input.extend(self._tensors(function.input))
        made.output.extend(self._tensors(function.output))
        made.attribute.extend(function.attribute)
        if hasattr(function, "attribute_proto"):
            made.attribute_proto.extend(self._attribute(one, "") for one in function.attribute_proto)
        if hasattr(function, "value_info"):
            made.value_info.extend(map(self._declaration, function.value_info))
        made.node.extend(map(self._node, function.node))
        for entry in function.opset_import:
            made.opset_import.add(domain=entry.domain, version=entry.version)
        return made

    def _tensors(self, names: Iterable[str]) -> list[str]:
        return [self._names("t", name) for name in names]

    def _node(self, node: NodeProto) -> NodeProto:
        made = NodeProto(op_type=node.op_type)
        if node.domain:
            made.domain = node.domain
        if node.name:
            made.name = self._names("n", node.name)
        _set_overload(made, node)
        made.input.extend(self._tensors(node.input))
        made.output.extend(self._tensors(node.output))
        made.attribute.extend(self._attribute(one, node.op_type) for one in node.attribute)
        return made

    def _attribute(self, old: AttributeProto, op_type: str) -> AttributeProto:
        made = AttributeProto(name=old.name, type=old.type)
        if old.ref_attr_name:
            made.ref_attr_name = old.ref_attr_name
        is_value = op_type == "Constant" and old.name in _VALUES
        if old.type in _PLAIN:
            field = _PLAIN[old.type]
            value = getattr(old, field)
            if old.type in _LISTS:
                getattr(made, field).extend(_list(old.type, value, is_value=is_value))
            else:
                setattr(made, field, _one(value, is_value=is_value))
        elif old.type in _MESSAGES:
            field, method = _MESSAGES[old.type]
            for inner in getattr(old, field) if old.type in _LISTS else [getattr(old, field)]:
                copied = getattr(self, method)(inner)
                if old.type in _LISTS:
                    getattr(made, field).append(copied)
                else:
                    getattr(made, field).CopyFrom(copied)
        return made

    def _tensor(self, tensor: TensorProto) -> TensorProto:
        made = TensorProto(data_type=tensor.data_type, dims=tensor.dims)
        if tensor.name:
            made.name = self._names("t", tensor.name)
        if self._keep_shapes and _can_be_shape(tensor):
            made.int64_data.extend(numpy_helper.to_array(tensor).ravel().tolist())
        return made

    def _sparse(self, sparse: SparseTensorProto) -> SparseTensorProto:
        """Without any element: which elements differ from zero is a part of the weights."""
        made = SparseTensorProto(dims=sparse.dims)
        made.values.CopyFrom(TensorProto(data_type=sparse.values.data_type, dims=[0]))
        if sparse.values.name:
            made.values.name = self._names("t", sparse.values.name)
        made.indices.CopyFrom(TensorProto(data_type=TensorProto.INT64, dims=[0]))
        return made

    def _declaration(self, declared: ValueInfoProto) -> ValueInfoProto:
        made = ValueInfoProto(name=self._names("t", declared.name))
        if declared.HasField("type"):
            made.type.CopyFrom(self._type(declared.type))
        return made

    def _type(self, old: TypeProto) -> TypeProto:
        made = TypeProto()
        match old.WhichOneof("value"):
            case "tensor_type":
                made.tensor_type.elem_type = old.tensor_type.elem_type
                if old.tensor_type.HasField("shape"):
                    made.tensor_type.shape.CopyFrom(self._shape(old.tensor_type.shape))
            case "sparse_tensor_type":
                made.sparse_tensor_type.elem_type = old.sparse_tensor_type.elem_type
                if old.sparse_tensor_type.HasField("shape"):
                    made.sparse_tensor_type.shape.CopyFrom(self._shape(old.sparse_tensor_type.shape))
            case "sequence_type":
                made.sequence_type.elem_type.CopyFrom(self._type(old.sequence_type.elem_type))
            case "optional_type":
                made.optional_type.elem_type.CopyFrom(self._type(old.optional_type.elem_type))
            case "map_type":
                made.map_type.key_type = old.map_type.key_type
                made.map_type.value_type.CopyFrom(self._type(old.map_type.value_type))
        return made

    def _shape(self, shape: TensorShapeProto) -> TensorShapeProto:
        made = TensorShapeProto()
        for old in shape.dim:
            if old.HasField("dim_value"):
                made.dim.add(dim_value=old.dim_value)
            else:
                made.dim.add(dim_param=self._names("d", old.dim_param))
        return made


def _can_be_shape(tensor: TensorProto) -> bool:
    is_short = len(tensor.dims) <= 1 and math.prod(tensor.dims) <= LONGEST_LIST
    return tensor.data_type == TensorProto.INT64 and is_short and tensor.data_location != TensorProto.EXTERNAL


def _set_overload(made: NodeProto | FunctionProto, old: NodeProto | FunctionProto) -> None:
    if getattr(old, "overload", ""):  # onnx has it since 1.16
        made.overload = old.overload


def _one(value: float | bytes, *, is_value: bool) -> float | bytes:
    if isinstance(value, bytes):
        return b"" if is_value or not _SETTING.match(value) else value
    return type(value)(isinstance(value, float)) if is_value else value


def _list(kind: int, values: Sequence[Any], *, is_value: bool) -> list[Any]:
    """Lists of floats are always values: no setting of an operator needs several."""
    if kind == AttributeProto.FLOATS:
        return [1.0] * len(values)
    is_value = is_value or len(values) > LONGEST_LIST
    if kind == AttributeProto.INTS:
        return [0] * len(values) if is_value else list(values)
    return [b"" if is_value or not _SETTING.match(one) else one for one in values]
