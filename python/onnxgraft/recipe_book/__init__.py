"""Recipes: transformations for a family of networks, in the order that works. docs/use/recipes.md describes them."""

from __future__ import annotations

import difflib
import functools
from collections.abc import Mapping
from dataclasses import replace
from pathlib import Path
from types import MappingProxyType

from onnxgraft.errors import RecipeFileError, UnknownRecipeError
from onnxgraft.recipe_book.recipe_file import Recipe, load_recipes

__all__ = ["Recipe", "RecipeFileError", "UnknownRecipeError", "find_recipe", "load_recipes", "recipes"]

_BUILT_IN = "built in"


@functools.cache
def recipes() -> Mapping[str, Recipe]:
    """The built-in recipes by name."""
    found = load_recipes(Path(__file__).with_name("recipes.toml"))
    return MappingProxyType({name: replace(recipe, source=_BUILT_IN) for name, recipe in found.items()})


def find_recipe(name: str) -> Recipe:
    """The built-in recipe of that name.

    Raises:
        UnknownRecipeError: There is none; the message names similar ones.
    """
    known = recipes()
    if name not in known:
        raise UnknownRecipeError(name, difflib.get_close_matches(name.lower(), known, n=3, cutoff=0.6), list(known))
    return known[name]
