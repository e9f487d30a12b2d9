"""Finds texts of a model that are not UTF-8, which protobuf hands out as bytes where a text is expected.

The format asks for UTF-8, but onnx reads such a model, and its checker passes it.
"""

from __future__ import annotations

from collections.abc import Iterable, Iterator
from typing import Any

import onnx
from google.protobuf.message import Message

from onnxgraft.graph.bodies import bodies

_LISTS = ("initializer", "input", "output", "value_info")


def text_that_is_not_utf8(model: onnx.ModelProto) -> str | None:
    """Says where the first such text stands and what it holds; None if all are UTF-8."""
    try:
        _read_names(model)
    except (TypeError, UnicodeDecodeError):
        return next(_wrong_fields(model, ""), None)
    return None


def _read_names(model: onnx.ModelProto) -> None:
    """Reads all that is a name, quickly: a join of bytes fails."""
    "".join([entry.domain for entry in model.opset_import])
    graphs, node_lists = [model.graph], [function.node for function in model.functions]
    while graphs or node_lists:
        for node in node_lists.pop() if node_lists else ():
            "".join((node.name, node.op_type, node.domain, *node.input, *node.output))
            "".join([attribute.name for attribute in node.attribute])
            graphs += bodies(node)
        for graph in graphs:
            node_lists.append(graph.node)
            for field in _LISTS:
                "".join([value.name for value in getattr(graph, field)])
            for values in (graph.input, graph.output, graph.value_info):
                "".join([dim.dim_param for value in values for dim in value.type.tensor_type.shape.dim])
            for tensor in graph.initializer:
                "".join([entry.value for entry in tensor.external_data])
        graphs = []


def _wrong_fields(message: Message, place: str) -> Iterator[str]:
    """Walks everything, in the order of the format."""
    for field in message.DESCRIPTOR.fields:
        repeated = _is_repeated(field)
        if field.type == field.TYPE_STRING:
            for at, text in enumerate(_texts(message, field.name) if repeated else [_text(message, field.name)]):
                if isinstance(text, bytes):
                    what = f"{field.name} {at}" if repeated else field.name
                    yield f"{place or 'model'}: {what} {text!r} is not UTF-8, as all names in ONNX have to be"
        elif field.type == field.TYPE_MESSAGE:
            if not repeated and not message.HasField(field.name):
                continue
            values: Iterable[Any] = getattr(message, field.name) if repeated else [getattr(message, field.name)]
            for at, value in enumerate(values):
                yield from _wrong_fields(value, _inner(place, field.name, at if repeated else None, value))


def _is_repeated(field: Any) -> bool:
    # `label` is what protobuf had before `is_repeated`.
    return bool(field.is_repeated if hasattr(field, "is_repeated") else field.label == field.LABEL_REPEATED)


def _inner(place: str, name: str, at: int | None, value: Any) -> str:
    if name == "graph" and not place:
        return ""
    text = name if at is None else f"{name} {at}"
    if isinstance(value, onnx.NodeProto) and isinstance(_text(value, "op_type"), str):
        text += f" ({value.op_type})"
    return f"{place}, {text}" if place else text


def _text(message: Any, name: str) -> str | bytes:
    try:
        return getattr(message, name)  # type: ignore[no-any-return]
    except UnicodeDecodeError as error:
        return bytes(error.object)


def _texts(message: Any, name: str) -> list[str | bytes]:
    try:
        return list(getattr(message, name))
    except UnicodeDecodeError as error:
        return [bytes(error.object)]
