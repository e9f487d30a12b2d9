"""The transformations that a command line asks for."""

from __future__ import annotations

import argparse
from collections.abc import Mapping

from onnxgraft.catalogue import Transformation, find_row
from onnxgraft.preparation import step_names
from onnxgraft.recipe_book import Recipe, find_recipe, load_recipes
from onnxgraft.rules import class_of, rule_of_lists


def own_recipes(options: argparse.Namespace) -> Mapping[str, Recipe]:
    """The recipes of `--recipe-file`.

    Raises:
        HostError: The file cannot be used.
    """
    return {} if options.recipe_file is None else load_recipes(options.recipe_file)


def recipe(options: argparse.Namespace) -> Recipe | None:
    """The recipe that `--recipe` names, or None without the option.

    Raises:
        UnknownNameError: There is none of that name.
        HostError: The user's recipe file cannot be used.
    """
    own = own_recipes(options)
    if options.recipe is None:
        return None
    return own.get(options.recipe) or find_recipe(options.recipe)


def preparation(options: argparse.Namespace) -> bool | list[str]:
    """What `rewrite` shall prepare: nothing with `--no-prepare`, else the recipe's steps or all, without `--skip-step`.

    Raises:
        UnknownNameError: There is no step of a name.
    """
    if not options.prepare or not options.skip_step:
        return bool(options.prepare)
    named = recipe(options)
    return step_names(None if named is None else named.prepare, options.skip_step)


def rows(options: argparse.Namespace) -> list[Transformation]:
    """What `--transformation`, `--recipe` or `--pattern` asks for, without what `--skip` names, each once.

    Raises:
        UnknownNameError: There is no transformation or recipe of a name.
        WrongUsageError: The lists of `--pattern` and `--replacement` do not follow the notation.
    """
    if options.pattern is not None:
        kept = [f"#{number}" for number in range(len(options.pattern))]
        replacement = kept if options.replacement is None else options.replacement
        return [Transformation("pattern", class_of(rule_of_lists(options.pattern, replacement)))]
    named = recipe(options)
    skipped = {find_row(name).name for name in options.skip}
    names = dict.fromkeys(options.transformation if named is None else named.transformations)
    return [find_row(name) for name in names if name not in skipped]
