"""The transformations that can be run, as data: short name, class, purpose, (pattern, replacement) pairs.

All data comes from the classes themselves. A transformation added to `onnxgraft.quant` therefore appears here at once,
and one that a user registers is treated like a built-in one.
"""

from __future__ import annotations

import difflib
import functools
import inspect
import logging
import os
import types
from collections.abc import Mapping
from dataclasses import dataclass
from importlib.metadata import entry_points
from typing import Any, TypeVar

import onnx

from onnxgraft import quant
from onnxgraft.abstract_transformation import AbstractTransformation
from onnxgraft.catalogue.interception import Pair, pairs_of
from onnxgraft.catalogue.user_code import import_user_code
from onnxgraft.errors import RegistrationError, UnknownTransformationError
from onnxgraft.rules import class_of, library, load_rules

ENTRY_POINT_GROUP = "onnxgraft.transformations"

_PURPOSE = "Transformation prepared for "
# They and their subclasses draw weights, biases or scales at random: for speed measurements, not for accuracy.
_RANDOM_CLASSES = (quant._QuantTransformation, quant.FuseQuantBatchNormTransformation)

_log = logging.getLogger(__name__)
_Class = TypeVar("_Class", bound=type[Any])


@dataclass(frozen=True)
class Transformation:
    """One row of the catalogue."""

    name: str
    cls: type[Any]
    is_own: bool = False  # built in, not registered by a user

    @property
    def prepared_for(self) -> str:
        """The networks that it was made for, from the doc string of its class."""
        return (inspect.getdoc(self.cls) or "").strip().removeprefix(_PURPOSE)

    @property
    def randomizes(self) -> bool:
        """Whether it draws random weights, biases or scales, so that the model's function changes by definition."""
        return issubclass(self.cls, _RANDOM_CLASSES)

    @functools.cached_property
    def pairs(self) -> tuple[Pair, ...]:
        """The (pattern, replacement) pairs in the order in which `apply` takes them."""
        return pairs_of(self.cls())

    def apply(self, graph: onnx.GraphProto) -> int:
        """Rewrites `graph` in place; returns the number of replaced occurrences."""
        return int(self.cls().apply(graph))


def _is_runnable(value: object) -> bool:
    return (
        inspect.isclass(value)
        and issubclass(value, AbstractTransformation)
        and not inspect.isabstract(value)
        and hasattr(value, "get_simple_name")
    )


@functools.cache
def _registry() -> dict[str, Transformation]:
    """The built-in transformations in the order of their definition; registered ones are added after them."""
    classes: list[type[Any]] = [value for value in vars(quant).values() if _is_runnable(value)]
    own = (Transformation(cls().get_simple_name(), cls, is_own=True) for cls in classes)
    return {row.name: row for row in own}


@functools.cache
def _load_entry_points() -> None:
    """Registers what installed packages offer. One that cannot be loaded is only logged."""
    for entry in entry_points(group=ENTRY_POINT_GROUP):
        try:
            value = entry.load()
            # Any other object, such as a module, was imported for the `register` calls in it.
            if inspect.isclass(value):
                register(value)
        except Exception as error:  # any error of foreign code
            _log.warning("entry point '%s' (%s) is left out: %s", entry.name, entry.value, error)


def rows() -> Mapping[str, Transformation]:
    """All runnable transformations by short name: the built-in ones in catalogue order, then registered ones."""
    _load_entry_points()
    return types.MappingProxyType(_registry())


def transformations() -> dict[str, type[Any]]:
    """The classes of all runnable transformations by short name, in the order of `rows`."""
    return {name: row.cls for name, row in rows().items()}


def short_names() -> tuple[str, ...]:
    """All names that `find_row` knows: those of `rows`, then the rules of the package's library."""
    return tuple(dict.fromkeys((*rows(), *library())))


def find_row(name: str) -> Transformation:
    """The transformation of that short name, or the rule of the package's library.

    Raises:
        UnknownTransformationError: There is none; the message names similar ones.
    """
    known = rows()
    if name not in known:
        rule = library().get(name)
        if rule is not None:
            return Transformation(name, rule)
        raise UnknownTransformationError(name, difflib.get_close_matches(name.lower(), short_names(), n=3, cutoff=0.7))
    return known[name]


def register(cls: _Class) -> _Class:
    """Adds a user's transformation to the catalogue, so that its name works wherever a built-in one does.

    Usable as a class decorator. Registering a class of the same module and name again replaces it, for example when a
    notebook cell runs twice.

    Returns:
        `cls`.

    Raises:
        RegistrationError: It is not a class that can be run, or its short name is taken.
    """
    name = _checked_name(cls)
    taken = _registry().get(name)
    if taken is not None and taken.cls is cls:
        return cls
    if taken is not None and (taken.is_own or _place(taken.cls) != _place(cls)):
        raise RegistrationError(f"{_label(cls)}: the short name '{name}' is taken by {_place(taken.cls)}")
    _registry()[name] = Transformation(name, cls)
    return cls


def load_rule_file(path: str | os.PathLike[str]) -> tuple[str, ...]:
    """Registers the rules of a TOML file, each as a transformation of its name.

    Returns:
        The names.

    Raises:
        RuleFileError: The file cannot be read, or something in it is not a rule. Nothing is registered then.
        RegistrationError: A name is taken by another transformation.
    """
    classes = [class_of(rule) for rule in load_rules(path).values()]
    for cls in classes:
        register(cls)
    return tuple(cls.rule.name for cls in classes)


def load_user_code(path_or_module: str) -> tuple[str, ...]:
    """Imports a user's `.py` file or module, so that its `register` calls run.

    A file can import modules from its own folder. A module is also looked for in the current folder.

    Returns:
        The short names of the transformations that it registered.

    Raises:
        RegistrationError: It could not be imported; the message gives the reason.
    """
    before = dict(rows())
    import_user_code(path_or_module)
    return tuple(name for name, row in rows().items() if before.get(name) is not row)


def _checked_name(cls: Any) -> str:
    """The short name of a class that can be run."""
    label = _label(cls)
    if not (inspect.isclass(cls) and AbstractTransformation in cls.__mro__):
        raise RegistrationError(f"{label} must be a subclass of {_place(AbstractTransformation)}")
    if inspect.isabstract(cls):
        missing = ", ".join(sorted(getattr(cls, "__abstractmethods__", ())))
        raise RegistrationError(f"{label} is abstract: it must define {missing}")
    for method, purpose in (
        ("apply", "`apply(self, graph, debug=False)` that returns the number of replaced occurrences"),
        ("get_simple_name", "`get_simple_name(self)` that returns its short name"),
    ):
        if not callable(getattr(cls, method, None)):
            raise RegistrationError(f"{label} must have a method {purpose}")
    try:
        name: object = getattr(cls(), "get_simple_name")()  # noqa: B009
    except Exception as error:  # any error of foreign code
        raise RegistrationError(
            f"{label}: the class cannot be instantiated or does not return its name: {error}"
        ) from error
    if not isinstance(name, str) or name.split() != [name]:
        raise RegistrationError(f"{label}: get_simple_name() must return one word, not {name!r}")
    return name


def _label(cls: Any) -> str:
    return str(cls.__name__) if inspect.isclass(cls) else repr(cls)


def _place(cls: type[Any]) -> str:
    return f"{cls.__module__}.{cls.__qualname__}"
