"""`onnxgraft recipes`."""

from __future__ import annotations

import argparse

from onnxgraft.cli import chosen, consoles
from onnxgraft.recipe_book import recipes


def run(options: argparse.Namespace) -> int:
    """Shows each recipe with what it does."""
    console = consoles.results()
    for recipe in {**recipes(), **chosen.own_recipes(options)}.values():
        console.print(f"{recipe.name}: {recipe.summary}")
        steps = "" if recipe.prepare is None else f"  prepare: {', '.join(recipe.prepare) or 'no step'}\n"
        repeat = ", repeated until nothing changes" if recipe.until_stable else ""
        console.print(f"{steps}  apply: {' '.join(recipe.transformations)}{repeat}\n")
    return 0
