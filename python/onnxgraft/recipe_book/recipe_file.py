"""Recipes, and how they are read from TOML: one table each. Built-in and user recipes pass the same checks."""

from __future__ import annotations

import difflib
import os
import types
from collections.abc import Collection, Mapping
from dataclasses import dataclass
from typing import Any

from onnxgraft.catalogue import short_names
from onnxgraft.errors import RecipeFileError
from onnxgraft.preparation import STEPS
from onnxgraft.toml_file import read_tables

_KEYS = ("summary", "transformations", "prepare", "until_stable", "exclude", "only")


@dataclass(frozen=True)
class Recipe:
    """One recipe; `transformations` are short names in the order in which they run."""

    name: str
    summary: str
    transformations: tuple[str, ...]
    prepare: tuple[str, ...] | None = None  # names of preparation steps; None: all of them
    until_stable: bool = True  # run the whole list again until the graph stops changing
    exclude: tuple[str, ...] = ()  # operators that stay in float: globs, as `rewrite` takes them
    only: tuple[str, ...] = ()  # the operators that may be quantized; empty: all
    source: str = ""  # the file that it comes from


def load_recipes(path: str | os.PathLike[str]) -> Mapping[str, Recipe]:
    """The recipes of a file, by name.

    Raises:
        RecipeFileError: The file cannot be read, is not TOML, or one of its tables is not a recipe.
    """
    tables = read_tables(path, RecipeFileError, "recipe", "mynet")
    source = os.fspath(path)
    return types.MappingProxyType({name: _recipe(name, table, source) for name, table in tables.items()})


def _recipe(name: str, table: Any, source: str) -> Recipe:
    where = f"'{source}', recipe '{name}'"
    if not isinstance(table, dict):
        raise RecipeFileError(f"'{source}': '{name}' is outside of a recipe; write it below a line such as [mynet]")
    for key in table.keys() - set(_KEYS):
        raise RecipeFileError(f"{where}: unknown key '{key}'; {_instead(key, _KEYS, 'the keys are')}")
    if "transformations" not in table:
        raise RecipeFileError(f"{where}: the key 'transformations' is missing; write the short names to run, in order")
    transformations = _names(table, "transformations", short_names(), where)
    if not transformations:
        raise RecipeFileError(f"{where}, key 'transformations': the list is empty; name at least one")
    return Recipe(
        name=name,
        summary=_typed(table, "summary", str, "a text", where, default=""),
        transformations=transformations,
        prepare=_names(table, "prepare", STEPS, where) if "prepare" in table else None,
        until_stable=_typed(table, "until_stable", bool, "true or false", where, default=True),
        exclude=_globs(table, "exclude", where),
        only=_globs(table, "only", where),
        source=source,
    )


def _globs(table: Mapping[str, Any], key: str, where: str) -> tuple[str, ...]:
    globs = table.get(key, [])
    if not isinstance(globs, list) or not all(isinstance(glob, str) for glob in globs):
        raise RecipeFileError(f"{where}, key '{key}': expected a list of globs such as [\"/head/*\"], not {globs!r}")
    return tuple(globs)


def _names(table: Mapping[str, Any], key: str, known: Collection[str], where: str) -> tuple[str, ...]:
    names = table[key]
    if not isinstance(names, list) or not all(isinstance(name, str) for name in names):
        raise RecipeFileError(f"{where}, key '{key}': expected a list of names such as [\"{next(iter(known))}\"]")
    for name in names:
        if name not in known:
            listed = "`onnxgraft list` shows the names of" if key == "transformations" else "the steps are"
            raise RecipeFileError(f"{where}, key '{key}': unknown name '{name}'; {_instead(name, known, listed)}")
    return tuple(names)


def _typed(table: Mapping[str, Any], key: str, kind: type, wanted: str, where: str, *, default: Any) -> Any:
    value = table.get(key, default)
    if not isinstance(value, kind):
        raise RecipeFileError(f"{where}, key '{key}': expected {wanted}, not {value!r}")
    return value


def _instead(name: str, known: Collection[str], listed: str) -> str:
    similar = difflib.get_close_matches(name.lower(), known, n=3, cutoff=0.7)
    if similar:
        return f"did you mean {' or '.join(similar)}?"
    if listed.startswith("`"):
        return f"{listed} the transformations"
    return f"{listed} {', '.join(known)}"
