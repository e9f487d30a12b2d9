"""What the tools take as "a transformation" and as "a graph": names, classes, instances, rows, models."""

from __future__ import annotations

import copy
import inspect
from dataclasses import dataclass
from typing import Any

import onnx

from onnxgraft.abstract_transformation import AbstractTransformation
from onnxgraft.catalogue import Pair, Transformation, find_row, pairs_of


@dataclass(frozen=True)
class Subject:
    """A transformation as far as matching needs it: its name and its (pattern, replacement) pairs."""

    name: str
    pairs: tuple[Pair, ...]


def subject_of(transformation: str | type[Any] | AbstractTransformation | Transformation) -> Subject:
    """The name and the pairs of a short name, a class, an instance or a row of the catalogue.

    Raises:
        UnknownTransformationError: No transformation has that short name.
        TypeError: It is something else.
    """
    if isinstance(transformation, str):
        transformation = find_row(transformation)
    if isinstance(transformation, Transformation):
        return Subject(transformation.name, transformation.pairs)
    if isinstance(transformation, AbstractTransformation):
        return Subject(_name(transformation), pairs_of(copy.copy(transformation)))
    if inspect.isclass(transformation) and issubclass(transformation, AbstractTransformation):
        return Subject(_name(transformation()), Transformation("", transformation).pairs)
    raise TypeError(
        f"a short name, a class or an instance of AbstractTransformation is wanted, not {type(transformation).__name__}"
    )


def graph_of(graph: onnx.ModelProto | onnx.GraphProto) -> onnx.GraphProto:
    """The graph of a model; a graph is returned as it is."""
    if isinstance(graph, onnx.ModelProto):
        return graph.graph
    if isinstance(graph, onnx.GraphProto):
        return graph
    raise TypeError(f"a ModelProto or a GraphProto is wanted, not {type(graph).__name__}")


def _name(instance: Any) -> str:
    """Its short name, else that of its class."""
    method = getattr(instance, "get_simple_name", None)
    return str(method()) if callable(method) else type(instance).__name__
