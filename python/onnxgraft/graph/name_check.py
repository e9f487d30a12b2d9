"""Finds strings of a model that are not UTF-8, which protobuf returns as bytes where a str is expected.

The format requires UTF-8, but onnx reads such a model, and its checker accepts it.
"""

from __future__ import annotations

import functools
from collections.abc import Callable, Iterable, Iterator
from typing import Any, TypeVar

import onnx
from google.protobuf.message import Message

from onnxgraft.errors import ModelFileError

_Function = TypeVar("_Function", bound=Callable[..., Any])

_BODIES = frozenset({onnx.AttributeProto.GRAPH, onnx.AttributeProto.GRAPHS})
_LISTS = ("initializer", "input", "output", "value_info")


def text_that_is_not_utf8(model: onnx.ModelProto) -> str | None:
    """The position and contents of the first such string; None if all are UTF-8."""
    try:
        _read_names(model)
    except (TypeError, UnicodeDecodeError):
        return next(_wrong_fields(model, ""), None)
    return None


def check_texts(*models: onnx.ModelProto) -> None:
    """Raises ModelFileError for the first string that is not UTF-8."""
    for model in models:
        if (wrong := text_that_is_not_utf8(model)) is not None:
            raise ModelFileError(wrong)


def telling_bad_texts(function: _Function) -> _Function:
    """A decorator: a failure caused by a string that is not UTF-8 becomes an error that names its position.

    The arguments that are models or graphs are searched only after the function has failed, so success costs nothing.
    """

    @functools.wraps(function)
    def call(*arguments: Any, **named: Any) -> Any:
        try:
            return function(*arguments, **named)
        except (TypeError, UnicodeError, AttributeError, ValueError) as error:
            for given in (*arguments, *named.values()):
                if (wrong := _wrong_text(given)) is not None:
                    raise ModelFileError(wrong) from error
            raise

    return call  # type: ignore[return-value]


def _wrong_text(given: object) -> str | None:
    if isinstance(given, onnx.ModelProto):
        return text_that_is_not_utf8(given)
    return next(_wrong_fields(given, ""), None) if isinstance(given, onnx.GraphProto) else None


def _read_names(model: onnx.ModelProto) -> None:
    """Reads all names, quickly: joining them with bytes among them fails."""
    "".join([entry.domain for entry in model.opset_import])
    graphs, node_lists = [model.graph], [function.node for function in model.functions]
    while graphs or node_lists:
        for node in node_lists.pop() if node_lists else ():
            names = [node.name, node.op_type, node.domain, *node.input, *node.output]
            for attribute in node.attribute:
                names.append(attribute.name)
                if attribute.type in _BODIES:
                    graphs += (attribute.g, *attribute.graphs)
            "".join(names)
        for graph in graphs:
            node_lists.append(graph.node)
            for field in _LISTS:
                "".join([value.name for value in getattr(graph, field)])
            for values in (graph.input, graph.output, graph.value_info):
                "".join([dim.dim_param for value in values for dim in value.type.tensor_type.shape.dim])
        graphs = []


def _wrong_fields(message: Message, place: str) -> Iterator[str]:
    """Walks everything, in the order of the format."""
    for field in message.DESCRIPTOR.fields:
        repeated = _is_repeated(field)
        if field.type == field.TYPE_STRING:
            for at, text in enumerate(_texts(message, field.name) if repeated else [_text(message, field.name)]):
                if isinstance(text, bytes):
                    what = f"{field.name} {at}" if repeated else field.name
                    yield f"{place or 'model'}: {what} {text!r} is not UTF-8: all names in ONNX must be"
        elif field.type == field.TYPE_MESSAGE:
            if not repeated and not message.HasField(field.name):
                continue
            values: Iterable[Any] = getattr(message, field.name) if repeated else [getattr(message, field.name)]
            for at, value in enumerate(values):
                yield from _wrong_fields(value, _inner(place, field.name, at if repeated else None, value))


def _is_repeated(field: Any) -> bool:
    # protobuf had `label` before `is_repeated`.
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
