"""Reads values of a rule file: literals, ids of matched initializers, attributes and functions of these."""

from __future__ import annotations

import warnings
from collections.abc import Collection
from dataclasses import dataclass
from typing import Any

import numpy as np

from onnxgraft.rules.place import Place
from onnxgraft.rules.values import (
    ELEMENT_TYPES,
    FUNCTIONS,
    REQUIRED,
    AttributeOf,
    Call,
    Constant,
    Expression,
    Literal,
    Named,
)

_NEEDS_A_CLASS = "for more than these functions, write a transformation class"


@dataclass(frozen=True)
class Known:
    """The names that expressions of one pair can refer to."""

    tensors: Collection[str]  # ids of the pattern
    initializers: Collection[str]  # those of them that must be initializers
    named: Collection[str]  # of `let`, so far
    nodes: int  # strings of the pattern


def read_expression(value: Any, place: Place, known: Known) -> Expression:
    """The expression that a value of a rule file denotes."""
    if isinstance(value, str):
        return _reference(value, place, known)
    if isinstance(value, dict):
        return _table(value, place, known)
    return Literal(numbers(value, place))


def numbers(value: Any, place: Place) -> Any:
    """A number or nested lists of numbers of one shape."""
    try:
        with warnings.catch_warnings():
            warnings.simplefilter("error")  # NumPy before 1.24 only warns
            array = np.asarray(value)
    except (ValueError, Warning):
        place.error(f"the lists in {value!r} have different lengths")
    if array.dtype.kind not in "fib" or (array.size == 0 and not isinstance(value, list)):
        wanted = "a number, a list of numbers, the id of a matched initializer or a function"
        place.error(f"expected {wanted}, not {value!r}")
    return value


def element_type(value: Any, place: Place) -> str:
    """The name of an element type."""
    if value not in ELEMENT_TYPES:
        place.error(f"unknown element type {value!r}; the types are {', '.join(ELEMENT_TYPES)}")
    return str(value)


def _reference(text: str, place: Place, known: Known) -> Expression:
    if text in known.initializers:
        return Constant(text)
    if text in known.named:
        return Named(text)
    if text in known.tensors:
        place.error(f"tensor {text} is not an initializer: write '{text}i' in the pattern to require one")
    if text.isdecimal():
        place.error(f"there is no tensor {text} in the pattern")
    place.error(f"'{text}' is neither the id of a matched initializer nor a name of 'let'")


def _table(table: dict[str, Any], place: Place, known: Known) -> Expression:
    if "literal" in table:
        place.keys(table, ("literal", "type"))
        kind = element_type(table["type"], place.at("type")) if "type" in table else None
        return Literal(numbers(table["literal"], place.at("literal")), kind)
    if "attribute" in table:
        place.keys(table, ("attribute", "of", "default"))
        return _attribute(table, place, known)
    names = [name for name in table if name in FUNCTIONS]
    if len(names) != 1:
        listed = ", ".join(FUNCTIONS)
        place.error(f"expected one function of {listed}; or 'literal', or 'attribute'; {_NEEDS_A_CLASS}")
    (name,) = names
    function = FUNCTIONS[name]
    place.keys(table, [name, *function.options])
    given = table[name] if isinstance(table[name], list) else [table[name]]
    here = place.at(name)
    if len(given) < function.least or (function.most is not None and len(given) > function.most):
        wanted = f"{function.least}" if function.most == function.least else f"at least {function.least}"
        here.error(f"{name} takes {wanted} operand{'s'[: wanted != '1']}, not {len(given)}")
    operands = tuple(read_expression(value, here, known) for value in given)
    options = {key: _option(table, key, name, place, known) for key in function.options}
    return Call(name, operands, options)


def _attribute(table: dict[str, Any], place: Place, known: Known) -> Expression:
    name = place.at("attribute").typed(table["attribute"], str, "the name of an attribute")
    if "of" not in table:
        place.error("the key 'of' is missing: the number of the pattern's node, from 0")
    number = place.at("of").typed(table["of"], int, "the number of a node of the pattern")
    if not 0 <= number < known.nodes:
        place.at("of").error(f"there is no node {number}: the pattern has nodes 0 to {known.nodes - 1}")
    default = numbers(table["default"], place.at("default")) if "default" in table else None
    return AttributeOf(name, number, default)


def _option(table: dict[str, Any], key: str, function: str, place: Place, known: Known) -> Any:
    value, here = table.get(key, FUNCTIONS[function].options[key]), place.at(key)
    if value is REQUIRED:
        place.error(f"{function} needs the key '{key}'")
    if key == "type":
        return element_type(value, here)
    if key == "axis":
        return here.typed(value, int, "a whole number")
    if isinstance(value, dict):
        return read_expression(value, here, known)
    if not isinstance(value, list) or not all(type(size) is int for size in value):
        here.error(f"expected a list of whole numbers, not {value!r}")
    return value
