"""Contents of new initializers and attributes, as data: a literal, a matched constant, or a function of these.

Arithmetic is done in float64 for floating-point types and in int64 for integers, and rounded once, to the element type
of the operands. A literal has no type of its own: it takes the type of the other operand.
"""

from __future__ import annotations

from collections.abc import Callable, Mapping, Sequence
from dataclasses import dataclass, field
from typing import Any, TypeAlias

import numpy as np
import numpy.typing as npt
import onnx
from onnx import TensorProto, helper

Array: TypeAlias = npt.NDArray[Any]

# The element types that a rule can name, with their NumPy types.
ELEMENT_TYPES: Mapping[str, np.dtype[Any]] = {
    name: np.dtype(name)
    for name in (
        *("float16", "float32", "float64", "bool"),
        *("int8", "int16", "int32", "int64", "uint8", "uint16", "uint32", "uint64"),
    )
}


class RefusedError(Exception):
    """A rule does not fit this occurrence; the message is the reason."""


@dataclass(frozen=True)
class Value:
    """A number or an array. `dtype` is the element type in which it will be stored; None while it has none."""

    array: Array
    dtype: np.dtype[Any] | None

    @classmethod
    def of(cls, array: Array) -> Value:
        """An array with its element type."""
        return cls(array.astype(_working_type(array.dtype)), array.dtype)

    def stored(self) -> Array:
        """The array in its element type.

        Raises:
            RefusedError: A value does not fit the element type.
        """
        dtype = self.dtype
        if dtype is None:
            dtype = np.dtype(np.float32 if self.array.dtype.kind == "f" else np.int64)
        with np.errstate(over="ignore", invalid="ignore"):
            result = self.array.astype(dtype)
        if dtype.kind == "f":
            fits = np.isfinite(result) | ~np.isfinite(self.array)
        else:
            # Compared as floating-point numbers: the largest integers lose their last bits, and stay on their side of a
            # bound.
            fits = (self.array == result) & (np.signbit(self.array) == np.signbit(result.astype(np.float64)))
        if not fits.all():
            raise RefusedError(f"{self.array[~fits].flat[0]!r} cannot be stored as {dtype}")
        return result


class Scope:
    """The names that expressions refer to in one occurrence."""

    def constant(self, tensor: str) -> Array:
        """The values of the initializer that an id of the pattern names."""
        raise NotImplementedError

    def node(self, number: int) -> onnx.NodeProto:
        """The node that matched a string of the pattern."""
        raise NotImplementedError

    def named(self, name: str) -> Value:
        """A value that the rule has given a name."""
        raise NotImplementedError


@dataclass(frozen=True)
class Literal:
    """A number or nested lists of numbers."""

    value: Any
    type: str | None = None

    def evaluate(self, scope: Scope) -> Value:
        """The value as it is."""
        array = np.asarray(self.value)
        dtype = None if self.type is None else ELEMENT_TYPES[self.type]
        if array.size == 0 and dtype is None:
            array = array.astype(np.int64)
        return Value(array if dtype is None else array.astype(_working_type(dtype)), dtype)


@dataclass(frozen=True)
class Constant:
    """A matched initializer."""

    tensor: str

    def evaluate(self, scope: Scope) -> Value:
        """Its values."""
        return Value.of(scope.constant(self.tensor))


@dataclass(frozen=True)
class Named:
    """A value of the rule's table `let`."""

    name: str

    def evaluate(self, scope: Scope) -> Value:
        """The value."""
        return scope.named(self.name)


@dataclass(frozen=True)
class AttributeOf:
    """An attribute of a matched node: a number or a list of numbers."""

    name: str
    node: int
    default: Any = None

    def evaluate(self, scope: Scope) -> Value:
        """Its value, the rule's default, or that of the operator's schema."""
        found = attribute_value(scope.node(self.node), self.name)
        if found is None:
            found = self.default
        if found is None:
            raise RefusedError(f"{describe(scope.node(self.node))} has no attribute '{self.name}'")
        array = np.asarray(found)
        if array.dtype.kind not in "fi":
            raise RefusedError(f"attribute '{self.name}' of {describe(scope.node(self.node))} is not a number")
        return Value(array.astype(_working_type(array.dtype)), None)


@dataclass(frozen=True)
class Call:
    """A function of other expressions."""

    function: str
    operands: tuple[Expression, ...]
    options: Mapping[str, Any] = field(default_factory=dict)  # its other keys, such as the shape of `reshape`

    def evaluate(self, scope: Scope) -> Value:
        """The result.

        Raises:
            RefusedError: The operands do not fit each other.
        """
        operands = [operand.evaluate(scope) for operand in self.operands]
        options = {
            key: value.evaluate(scope).array if isinstance(value, Call | AttributeOf) else value
            for key, value in self.options.items()
        }
        return FUNCTIONS[self.function].compute(operands, **options)


Expression: TypeAlias = Literal | Constant | Named | AttributeOf | Call


@dataclass(frozen=True)
class Function:
    """One function: its number of operands and its other keys. A key without a default is required."""

    least: int
    most: int | None
    compute: Callable[..., Value]
    options: Mapping[str, Any] = field(default_factory=dict)


def attribute_value(node: onnx.NodeProto, name: str) -> Any:
    """The value of the first attribute of that name, or the default of the operator's schema, or None."""
    for attribute in node.attribute:
        if attribute.name == name:
            return helper.get_attribute_value(attribute)
    if node.domain not in ("", "ai.onnx") or not onnx.defs.has(node.op_type):
        return None
    known = onnx.defs.get_schema(node.op_type).attributes
    if name not in known or not known[name].default_value.type:
        return None
    return helper.get_attribute_value(known[name].default_value)


def describe(node: onnx.NodeProto) -> str:
    """A node, described for a reader."""
    name = f"'{node.name}'" if node.name else f"that writes '{node.output[0] if node.output else ''}'"
    return f"{node.op_type} {name}"


def _working_type(dtype: np.dtype[Any]) -> np.dtype[Any]:
    return np.dtype(np.float64 if dtype.kind == "f" else np.bool_ if dtype.kind == "b" else np.int64)


def _common_type(name: str, operands: Sequence[Value]) -> np.dtype[Any] | None:
    types = list(dict.fromkeys(value.dtype for value in operands if value.dtype is not None))
    if len(types) > 1:
        raise RefusedError(f"{name}: element types differ: {' and '.join(map(str, types))}; use cast")
    return types[0] if types else None


def _elementwise(name: str, compute: Callable[[Array, Array], Array]) -> Callable[[Sequence[Value]], Value]:
    def run(operands: Sequence[Value]) -> Value:
        dtype = _common_type(name, operands)
        result = operands[0].array
        for operand in operands[1:]:
            result = _combined(name, compute, result, operand.array, dtype)
        return Value(result, dtype)

    return run


def _combined(
    name: str, compute: Callable[[Array, Array], Array], left: Array, right: Array, dtype: np.dtype[Any] | None
) -> Array:
    whole = left.dtype.kind == right.dtype.kind == "i"
    if dtype is not None and dtype.kind in "iu" and not whole:
        raise RefusedError(f"{name}: cannot combine {dtype} with a number that is not whole")
    try:
        shape = np.broadcast_shapes(left.shape, right.shape)
    except ValueError:
        shape = None
    # A result larger than both operands is almost certainly a mistake.
    if shape not in (left.shape, right.shape):
        raise RefusedError(f"{name}: shapes {list(left.shape)} and {list(right.shape)} do not fit")
    with np.errstate(all="ignore"):
        result = compute(left, right)
    if not np.isfinite(result).all() and np.isfinite(left).all() and np.isfinite(right).all():
        raise RefusedError(f"{name}: the result is not finite")
    if whole and result.dtype.kind == "f":
        if (result != np.rint(result)).any():
            raise RefusedError(f"{name}: the integers do not divide without remainder")
        result = result.astype(np.int64)
    return result


def _negate(operands: Sequence[Value]) -> Value:
    return Value(-operands[0].array, operands[0].dtype)


def _square_root(operands: Sequence[Value]) -> Value:
    (value,) = operands
    if (value.array < 0).any():
        raise RefusedError("square_root: a value is negative")
    return Value(np.sqrt(value.array), value.dtype)


def _sum(operands: Sequence[Value], axes: Sequence[int]) -> Value:
    (value,) = operands
    if any(not -value.array.ndim <= axis < value.array.ndim for axis in axes):
        raise RefusedError(f"sum: {list(axes)} are not axes of {list(value.array.shape)}")
    return Value(value.array.sum(tuple(axes)), value.dtype)


def _reshape(operands: Sequence[Value], shape: Sequence[int]) -> Value:
    (value,) = operands
    try:
        return Value(value.array.reshape([int(size) for size in shape]), value.dtype)
    except ValueError:
        raise RefusedError(f"reshape: {list(value.array.shape)} cannot become {list(shape)}") from None


def _transpose(operands: Sequence[Value], perm: Sequence[int]) -> Value:
    (value,) = operands
    axes = [int(axis) for axis in perm]
    if sorted(axes) != list(range(value.array.ndim)):
        raise RefusedError(f"transpose: {axes} is not an order of {value.array.ndim} axes")
    return Value(value.array.transpose(axes), value.dtype)


def _concatenate(operands: Sequence[Value], axis: int) -> Value:
    try:
        result = np.concatenate([value.array for value in operands], axis)
    except ValueError:  # np.exceptions.AxisError is one
        shapes = " and ".join(str(list(value.array.shape)) for value in operands)
        raise RefusedError(f"concatenate: shapes {shapes} do not fit along axis {axis}") from None
    return Value(result, _common_type("concatenate", operands))


def _cast(operands: Sequence[Value], type: str) -> Value:  # noqa: A002 - the key of the rule file
    dtype = ELEMENT_TYPES[type]
    array = operands[0].array
    if array.dtype.kind == "f" and dtype.kind in "iu":
        if not np.isfinite(array).all() or (np.abs(array) >= 2.0**63).any():
            raise RefusedError(f"cast: a value does not fit {dtype}")
        array = np.trunc(array)
    return Value(array.astype(_working_type(dtype)), dtype)


def _take(operands: Sequence[Value], indices: Any, axis: int) -> Value:
    (value,) = operands
    chosen = np.asarray(indices)
    shape = value.array.shape
    size = shape[axis] if -len(shape) <= axis < len(shape) else 0
    if chosen.dtype.kind != "i" or (chosen >= size).any() or (chosen < 0).any():
        raise RefusedError(f"take: {chosen.tolist()} are not positions along axis {axis} of {list(shape)}")
    return Value(value.array.take(chosen, axis), value.dtype)


REQUIRED = object()

FUNCTIONS: Mapping[str, Function] = {
    "add": Function(2, None, _elementwise("add", np.add)),
    "subtract": Function(2, 2, _elementwise("subtract", np.subtract)),
    "multiply": Function(2, None, _elementwise("multiply", np.multiply)),
    "divide": Function(2, 2, _elementwise("divide", np.true_divide)),
    "negate": Function(1, 1, _negate),
    "square_root": Function(1, 1, _square_root),
    "sum": Function(1, 1, _sum, {"axes": REQUIRED}),
    "reshape": Function(1, 1, _reshape, {"shape": REQUIRED}),
    "transpose": Function(1, 1, _transpose, {"perm": REQUIRED}),
    "concatenate": Function(1, None, _concatenate, {"axis": REQUIRED}),
    "cast": Function(1, 1, _cast, {"type": REQUIRED}),
    "take": Function(1, 1, _take, {"indices": REQUIRED, "axis": 0}),
}


def element_type_name(code: int) -> str:
    """The name that a rule uses for an element type of onnx."""
    return {"FLOAT": "float32", "DOUBLE": "float64"}.get(
        TensorProto.DataType.Name(code), TensorProto.DataType.Name(code).lower()
    )
