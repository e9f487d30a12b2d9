"""The transformations that can be run, as data: short name, class, purpose, (pattern, replacement) pairs.

Everything is asked of the classes themselves, so that a transformation added to `onnxgraft.quant` appears here at once.
"""

from __future__ import annotations

import difflib
import functools
import inspect
import types
from collections.abc import Mapping
from dataclasses import dataclass
from typing import Any

import onnx

from onnxgraft import quant
from onnxgraft.abstract_transformation import AbstractTransformation
from onnxgraft.errors import UnknownTransformationError

Pair = tuple[tuple[str, ...], tuple[str, ...]]

_PURPOSE = "Transformation prepared for "


@dataclass(frozen=True)
class Transformation:
    """One row of the catalogue."""

    name: str
    cls: type[Any]

    @property
    def prepared_for(self) -> str:
        """The networks that it was made for, from the doc string of its class."""
        return (inspect.getdoc(self.cls) or "").strip().removeprefix(_PURPOSE)

    @functools.cached_property
    def pairs(self) -> tuple[Pair, ...]:
        """The (pattern, replacement) pairs in the order in which `apply` takes them."""
        return _pairs(self.cls)

    def apply(self, graph: onnx.GraphProto) -> int:
        """Rewrites `graph` in place; returns the number of replaced occurrences."""
        return int(self.cls().apply(graph))


def _pairs(cls: type[Any]) -> tuple[Pair, ...]:
    """Lets `apply` run over an empty graph with a matcher that only takes notes."""
    taken: list[Pair] = []

    def take_note(_self: object, _graph: object, pattern: list[str], replacement: list[str], **_options: object) -> int:
        taken.append((tuple(pattern), tuple(replacement)))
        return 0

    methods = {"_replace_all_isomorphic_sub_graphs": take_note}
    recorder = types.new_class(cls.__name__, (cls,), exec_body=lambda namespace: namespace.update(methods))
    recorder().apply(onnx.GraphProto())
    return tuple(taken)


def _is_runnable(value: object) -> bool:
    return (
        inspect.isclass(value)
        and issubclass(value, AbstractTransformation)
        and not inspect.isabstract(value)
        and hasattr(value, "get_simple_name")
    )


@functools.cache
def transformations() -> Mapping[str, Transformation]:
    """All runnable transformations by short name, in the order of their definition."""
    classes: list[type[Any]] = [value for value in vars(quant).values() if _is_runnable(value)]
    rows = [Transformation(cls().get_simple_name(), cls) for cls in classes]
    return types.MappingProxyType({row.name: row for row in rows})


def find(name: str) -> Transformation:
    """The transformation of that short name.

    Raises:
        UnknownTransformationError: There is none; the message names similar ones.
    """
    known = transformations()
    if name not in known:
        raise UnknownTransformationError(name, difflib.get_close_matches(name.lower(), known, n=3, cutoff=0.7))
    return known[name]
