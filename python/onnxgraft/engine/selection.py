"""Selects the transformations of a run: from names, classes, instances, rows or a recipe."""

from __future__ import annotations

import difflib
import inspect
from collections.abc import Callable, Iterable
from dataclasses import dataclass
from typing import TYPE_CHECKING, Any, TypeAlias

from onnxgraft import catalogue
from onnxgraft.abstract_transformation import AbstractTransformation
from onnxgraft.catalogue import Transformation
from onnxgraft.errors import UnknownTransformationError

if TYPE_CHECKING:
    from onnxgraft.recipe_book import Recipe

One: TypeAlias = str | type[AbstractTransformation] | AbstractTransformation | Transformation
Selection: TypeAlias = "One | Recipe | Iterable[One]"


@dataclass(frozen=True)
class Candidate:
    """One transformation that will run."""

    name: str
    row: Transformation
    make: Callable[[], Any]  # the object to run


def recipe_of(selection: Selection) -> Recipe | None:
    """The recipe that is meant: itself, or a single name that only a recipe has.

    Raises:
        UnknownTransformationError: A single name that neither has.
    """
    from onnxgraft import recipe_book  # noqa: PLC0415

    if isinstance(selection, recipe_book.Recipe):
        return selection
    if not isinstance(selection, str) or selection in catalogue.short_names():
        return None
    found = recipe_book.recipes().get(selection)
    if found is None:
        known = [*catalogue.short_names(), *recipe_book.recipes()]
        raise UnknownTransformationError(
            selection, difflib.get_close_matches(selection.lower(), known, n=3, cutoff=0.7)
        )
    return found


def candidates(selection: Selection, skip: Iterable[str]) -> list[Candidate]:
    """The transformations to run, in order.

    Raises:
        UnknownTransformationError: No transformation has that short name.
        TypeError: An element is not a transformation.
    """
    left_out = {catalogue.find_row(name).name for name in ([skip] if isinstance(skip, str) else skip)}
    recipe = recipe_of(selection)
    chosen: Any = selection if recipe is None else recipe.transformations
    if isinstance(chosen, str | type | AbstractTransformation | Transformation):
        chosen = [chosen]
    return [one for one in map(_candidate, chosen) if one.name not in left_out]


def _candidate(one: Any) -> Candidate:
    if isinstance(one, str):
        one = catalogue.find_row(one)
    if isinstance(one, Transformation):
        return Candidate(one.name, one, one.cls)
    if isinstance(one, AbstractTransformation):
        return Candidate(_name(one), Transformation(_name(one), type(one)), lambda: one)
    if inspect.isclass(one) and issubclass(one, AbstractTransformation):
        known = next((row for row in catalogue.rows().values() if row.cls is one), None)
        name = _name(one()) if known is None else known.name
        return Candidate(name, known or Transformation(name, one), one)
    raise TypeError(
        "a transformation must be a short name, a subclass of AbstractTransformation or an instance of one, not "
        f"{type(one).__name__}"
    )


def _name(instance: Any) -> str:
    """Its short name, or the name of its class."""
    method = getattr(instance, "get_simple_name", None)
    return str(method()) if callable(method) else type(instance).__name__
