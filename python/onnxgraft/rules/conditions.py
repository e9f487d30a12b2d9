"""The conditions of a rule on the nodes and tensors that its pattern matched, beyond operators and links."""

from __future__ import annotations

from collections.abc import Iterator, Mapping
from dataclasses import dataclass, field
from typing import Any, Protocol

import numpy as np
import onnx

from onnxgraft.rules.values import Array, attribute_value, describe

# One size of a shape: a number, or any.
Shape = tuple[int | None, ...]


@dataclass(frozen=True)
class Kind:
    """The known facts of a tensor: element type and shape, each None if unknown."""

    type: str | None
    shape: Shape | None


class Matched(Protocol):
    """One occurrence, as conditions see it."""

    def constant(self, tensor: str) -> Array:
        """The values of the initializer that an id names."""

    def kind(self, tensor: str) -> Kind:
        """Element type and shape of the tensor that an id names."""

    def name(self, tensor: str) -> str:
        """The tensor's name in the graph."""

    def node(self, number: int) -> onnx.NodeProto:
        """The node that matched a string of the pattern."""


@dataclass(frozen=True)
class Numbers:
    """A condition on values; a field that is None is not checked."""

    elements: int | None = None
    value: Any = None  # a number that every element has, or the list of all of them
    other_than: float | None = None  # a number that no element has
    min: float | None = None
    max: float | None = None

    def objections(self, array: Array) -> Iterator[str]:
        """The first condition that fails, as the rest of a sentence after the subject."""
        if self.elements is not None and array.size != self.elements:
            yield f"has {array.size} elements, not {self.elements}"
        if self.value is not None:
            wanted = np.asarray(self.value)
            # Compared in the element type of the tensor: 0.1 in float32 is not 0.1 in float64.
            stored = wanted.astype(array.dtype) if array.dtype.kind == "f" else wanted
            if (wanted.ndim and array.shape != wanted.shape) or array.size == 0 or not (array == stored).all():
                yield f"is not {wanted.tolist()}"
        if self.other_than is not None and (array == self.other_than).any():
            yield f"has an element {self.other_than:g}"
        if self.min is not None and not (array >= self.min).all():
            yield f"has an element below {self.min:g}"
        if self.max is not None and not (array <= self.max).all():
            yield f"has an element above {self.max:g}"

    @property
    def asks(self) -> bool:
        """Whether any field is set."""
        return self != Numbers()


@dataclass(frozen=True)
class TensorCondition:
    """The conditions on the tensor that an id names."""

    tensor: str
    numbers: Numbers = field(default_factory=Numbers)
    types: tuple[str, ...] = ()
    ranks: tuple[int, ...] = ()
    shapes: tuple[Shape, ...] = ()  # one of these
    fits: str | None = None  # broadcasting with the tensor of this id must keep that tensor's shape

    def objections(self, matched: Matched) -> Iterator[str]:
        """The conditions that fail, as sentences."""
        subject = f"tensor '{matched.name(self.tensor)}'"
        if self.types or self.ranks or self.shapes or self.fits is not None:
            kind = matched.kind(self.tensor)
            for objection in self._on_kind(kind, matched):
                yield f"{subject} {objection}"
        if self.numbers.asks:
            for objection in self.numbers.objections(matched.constant(self.tensor)):
                yield f"{subject} {objection}"

    def _on_kind(self, kind: Kind, matched: Matched) -> Iterator[str]:
        if self.types and kind.type not in self.types:
            yield f"is of type {kind.type or 'unknown'}, not {' or '.join(self.types)}"
        if (self.ranks or self.shapes or self.fits is not None) and kind.shape is None:
            yield "has no known shape"
            return
        shape = kind.shape or ()
        if self.ranks and len(shape) not in self.ranks:
            yield f"has rank {len(shape)}, not {' or '.join(map(str, self.ranks))}"
        if self.shapes and not any(_agree(shape, wanted) for wanted in self.shapes):
            yield f"has shape {shape_text(shape)}, not {' or '.join(map(shape_text, self.shapes))}"
        if self.fits is not None and not _fits(shape, matched.kind(self.fits).shape):
            yield f"of shape {shape_text(shape)} may change the shape of '{matched.name(self.fits)}'"


@dataclass(frozen=True)
class NodeCondition:
    """The conditions on the node that matched a string."""

    node: int
    attributes: Mapping[str, Numbers | str] = field(default_factory=dict)
    without: tuple[str, ...] = ()  # attributes that it must not have
    domain: str | None = None

    def objections(self, matched: Matched) -> Iterator[str]:
        """The conditions that fail, as sentences."""
        node = matched.node(self.node)
        subject = describe(node)
        if self.domain is not None and _plain_domain(node.domain) != _plain_domain(self.domain):
            yield f"{subject} is of domain '{node.domain}', not '{self.domain}'"
        for name in self.without:
            if any(attribute.name == name for attribute in node.attribute):
                yield f"{subject} has an attribute '{name}'"
        for name, wanted in self.attributes.items():
            found = attribute_value(node, name)
            if found is None:
                yield f"{subject} has no attribute '{name}'"
            elif isinstance(wanted, str):
                text = found.decode(errors="replace") if isinstance(found, bytes) else found
                if text != wanted:
                    yield f"attribute '{name}' of {subject} is {text!r}, not '{wanted}'"
            else:
                array = np.asarray(found)
                # An attribute stores 32-bit numbers, and Python reads them as 64-bit ones.
                array = array.astype(np.float32) if array.dtype.kind == "f" else array
                if array.dtype.kind not in "fi":
                    yield f"attribute '{name}' of {subject} is not a number"
                else:
                    for objection in wanted.objections(array):
                        yield f"attribute '{name}' of {subject} {objection}"


def shape_text(shape: Shape) -> str:
    """A shape in the notation of rules."""
    return "[" + ", ".join("*" if size is None else str(size) for size in shape) + "]"


def _plain_domain(domain: str) -> str:
    return "" if domain == "ai.onnx" else domain


def _agree(shape: Shape, wanted: Shape) -> bool:
    return len(shape) == len(wanted) and all(
        want is None or size == want for size, want in zip(shape, wanted, strict=True)
    )


def _fits(shape: Shape, other: Shape | None) -> bool:
    if not shape:
        return True
    if other is None or len(shape) > len(other):
        return False
    pairs = zip(reversed(shape), reversed(other), strict=False)
    return all(size == 1 or (size is not None and size == size_there) for size, size_there in pairs)
