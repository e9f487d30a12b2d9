"""Dataclasses to plain JSON values and back, driven by their field types.

Reading is strict: a report of another tool or version is refused instead of misread.
"""

from __future__ import annotations

import dataclasses
import functools
import json
import types
import typing
from collections.abc import Iterator
from typing import Any, TypeVar

from onnxgraft.errors import ReportError

# In the metadata of a field: it is not written, and not expected when read.
NOT_IN_JSON = "not_in_json"

_Class = TypeVar("_Class")


def to_plain(value: Any) -> Any:
    """The value with dataclasses as dicts and tuples as lists."""
    if dataclasses.is_dataclass(value):
        return {field.name: to_plain(getattr(value, field.name)) for field in _written(value)}
    if isinstance(value, dict):
        return {key: to_plain(element) for key, element in value.items()}
    if isinstance(value, list | tuple):
        return [to_plain(element) for element in value]
    return value


def dumps(plain: dict[str, Any]) -> str:
    """JSON text with one line per value, for reading and for version control."""
    return json.dumps(plain, indent=1, ensure_ascii=False)


def loads(text: str, cls: type[_Class], schema_version: int) -> _Class:
    """The object of class `cls` that JSON text describes.

    Raises:
        ReportError: The text does not describe one, or has another schema version.
    """
    try:
        plain = json.loads(text)
    except ValueError as error:
        raise ReportError(f"not a report: not JSON ({error})") from None
    if not isinstance(plain, dict) or "schema_version" not in plain:
        raise ReportError("not a report: it has no 'schema_version'")
    version = plain.pop("schema_version")
    if version != schema_version:
        raise ReportError(f"a report of schema version {version!r}; this release reads version {schema_version}")
    return typing.cast("_Class", _read(plain, cls, "report"))


def _read(value: Any, kind: Any, place: str) -> Any:
    if dataclasses.is_dataclass(kind):
        return _read_object(value, typing.cast("type[Any]", kind), place)
    origin, arguments = typing.get_origin(kind), typing.get_args(kind)
    if origin is types.UnionType:
        return None if value is None else _read(value, arguments[0], place)
    if origin in {list, tuple}:
        _expect(value, list, place)
        return origin(_read(element, arguments[0], f"{place}[{index}]") for index, element in enumerate(value))
    if origin is dict:
        _expect(value, dict, place)
        return {key: _read(element, arguments[1], f"{place}.{key}") for key, element in value.items()}
    _expect(value, kind, place)
    return value


def _read_object(value: Any, cls: type[Any], place: str) -> Any:
    _expect(value, dict, place)
    known: dict[str, Any] = _field_types(cls)  # type: ignore[arg-type]
    if wrong := sorted(value.keys() ^ known.keys()):
        state = "is missing" if wrong[0] in known else "is unknown"
        raise ReportError(f"not a report: {place}.{wrong[0]} {state}")
    return cls(**{name: _read(value[name], kind, f"{place}.{name}") for name, kind in known.items()})


@functools.cache
def _field_types(cls: type[Any]) -> dict[str, Any]:
    hints = typing.get_type_hints(cls)
    return {field.name: hints[field.name] for field in _written(cls)}


def _written(kind: Any) -> Iterator[dataclasses.Field[Any]]:
    return (field for field in dataclasses.fields(kind) if NOT_IN_JSON not in field.metadata)


def _expect(value: Any, kind: type[Any], place: str) -> None:
    accepted = (int, float) if kind is float else kind
    if not isinstance(value, accepted) or (isinstance(value, bool) and kind is not bool):
        raise ReportError(f"not a report: {place} is of type {type(value).__name__}, not {kind.__name__}")
