"""Ranks the recipes for a model by running each of them on a copy in memory."""

from __future__ import annotations

import logging
from collections.abc import Iterator
from contextlib import contextmanager
from dataclasses import dataclass
from os import PathLike

import onnx

from onnxgraft.engine import TransformationError, rewrite
from onnxgraft.graph.tensors import stored_tensors
from onnxgraft.recipe_book import Recipe, recipes

# A run makes new weights in addition to the old ones; for larger models no recipe is tried.
LARGEST = 2**30


@dataclass(frozen=True)
class RecipeScore:
    """The result of a recipe.

    Attributes:
        name: The recipe.
        replaced: Occurrences that its first round replaced; repeated replacements in a later round count once.
        share: The share of the known multiply-adds that are INT8 then; None if none is known.
        nodes: The number of nodes then.
    """

    name: str
    replaced: int
    share: float | None
    nodes: int


def rank_recipes(model: onnx.ModelProto, folder: str | PathLike[str] | None = None) -> list[RecipeScore]:
    """The built-in recipes that replace something, the one that replaces most first.

    Of recipes that replace equally much, the one with fewer transformations comes first. The model is not changed.

    Args:
        model: The model.
        folder: The folder that the locations of external tensors start from.
    """
    scores = [(score, recipe) for recipe in recipes().values() if (score := _score(model, recipe, folder)) is not None]
    scores.sort(key=lambda item: (-item[0].replaced, len(item[1].transformations)))
    return [score for score, _ in scores]


def weight_bytes(model: onnx.ModelProto) -> int:
    """The bytes of all weights of four bytes an element or fewer, counted as four."""
    total = 0
    for tensor in stored_tensors(model):
        count = 1
        for size in tensor.dims:
            count *= size
        total += 4 * count
    return total


def _score(model: onnx.ModelProto, recipe: Recipe, folder: str | PathLike[str] | None) -> RecipeScore | None:
    copy = onnx.ModelProto()
    copy.CopyFrom(model)
    with _silent():
        try:
            report = rewrite(copy, recipe, seed=0, details="counts", folder=folder, on_error="continue")
        except TransformationError:
            return None
    replaced = sum(step.replaced for step in report.steps if step.round == 1)
    if not replaced:
        return None
    share = None if report.account is None else report.account.share
    return RecipeScore(recipe.name, replaced, share, len(copy.graph.node))


@contextmanager
def _silent() -> Iterator[None]:
    """Hides warnings of trial runs from the user."""
    logger = logging.getLogger("onnxgraft")
    before = logger.disabled
    logger.disabled = True
    try:
        yield
    finally:
        logger.disabled = before
