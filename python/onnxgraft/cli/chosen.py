"""The transformations that a command line selects."""

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
        UnknownNameError: No recipe has that name.
        HostError: The user's recipe file cannot be used.
    """
    own = own_recipes(options)
    if options.recipe is None:
        return None
    return own.get(options.recipe) or find_recipe(options.recipe)


def preparation(options: argparse.Namespace) -> bool | list[str]:
    """The `prepare` argument of `rewrite`: none with `--no-prepare`, else some or all steps, minus `--skip-step`.

    Raises:
        UnknownNameError: No step has that name.
    """
    if not options.prepare or not options.skip_step:
        return bool(options.prepare)
    named = recipe(options)
    return step_names(None if named is None else named.prepare, options.skip_step)


def rows(options: argparse.Namespace) -> list[Transformation]:
    """The transformations of `--transformation`, `--recipe` or `--pattern`, without those of `--skip`, each once.

    Raises:
        UnknownNameError: No transformation or recipe has that name.
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
