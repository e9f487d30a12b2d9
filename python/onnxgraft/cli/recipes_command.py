"""`onnxgraft recipes`."""

from __future__ import annotations

import argparse

from onnxgraft.cli import chosen, consoles, json_output
from onnxgraft.recipe_book import recipes


def run(options: argparse.Namespace) -> int:
    """Shows each recipe with its effect."""
    known = {**recipes(), **chosen.own_recipes(options)}
    if options.json:
        json_output.show(list(known.values()))
        return 0
    for recipe in known.values():
        consoles.tell(f"{recipe.name}: {recipe.summary}")
        steps = "" if recipe.prepare is None else f"  prepare: {', '.join(recipe.prepare) or 'no step'}\n"
        repeat = ", repeated until nothing changes" if recipe.until_stable else ""
        consoles.tell(f"{steps}  apply: {' '.join(recipe.transformations)}{repeat}\n")
    return 0
