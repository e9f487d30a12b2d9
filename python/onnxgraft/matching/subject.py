"""What the tools accept as "a transformation" and as "a graph": names, classes, instances, rows, models."""

from __future__ import annotations

import copy
import inspect
from collections.abc import Sequence
from dataclasses import dataclass
from typing import Any, TypeAlias

import onnx

from onnxgraft.abstract_transformation import AbstractTransformation
from onnxgraft.catalogue import Pair, Transformation, find_row, pairs_of
from onnxgraft.io.given import Readable, opened

# A pattern; or a pattern and its replacement.
Lists: TypeAlias = "Sequence[str] | tuple[Sequence[str], Sequence[str]]"


@dataclass(frozen=True)
class Subject:
    """The name and the (pattern, replacement) pairs of a transformation: all that matching needs."""

    name: str
    pairs: tuple[Pair, ...]


def subject_of(transformation: str | type[Any] | AbstractTransformation | Transformation | Sequence[Any]) -> Subject:
    """The name and the pairs of a short name, a class, an instance or a row of the catalogue; or of lists.

    Raises:
        UnknownTransformationError: No transformation has that short name.
        TypeError: It is something else.
    """
    if isinstance(transformation, str):
        transformation = find_row(transformation)
    if isinstance(transformation, list | tuple):
        return Subject("pattern", (_pair_of_lists(transformation),))
    if isinstance(transformation, Transformation):
        return Subject(transformation.name, transformation.pairs)
    if isinstance(transformation, AbstractTransformation):
        return Subject(_name(transformation), pairs_of(copy.copy(transformation)))
    if inspect.isclass(transformation) and issubclass(transformation, AbstractTransformation):
        return Subject(_name(transformation()), Transformation("", transformation).pairs)
    raise TypeError(
        f"expected a short name, a class or an instance of AbstractTransformation, not {type(transformation).__name__}"
    )


def _pair_of_lists(lists: Sequence[Any]) -> Pair:
    """Both lists; a pattern alone gets a replacement that keeps every node, so that every match counts."""
    if len(lists) == 2 and not any(isinstance(one, str) for one in lists):
        pattern, replacement = lists
        return tuple(pattern), tuple(replacement)
    return tuple(lists), tuple(f"#{number}" for number in range(len(lists)))


def graph_of(graph: Readable) -> onnx.GraphProto:
    """The graph of a model, which may be a path; a graph is returned as it is."""
    found = opened(graph)
    return found.graph if isinstance(found, onnx.ModelProto) else found


def _name(instance: Any) -> str:
    """Its short name, or the name of its class."""
    method = getattr(instance, "get_simple_name", None)
    return str(method()) if callable(method) else type(instance).__name__
