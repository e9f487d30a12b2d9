"""Counts how often each transformation fires on a model, alone and in the order of the recipes.

Every count starts from the quantized graph. "Alone" applies each transformation to a fresh copy of it; "in order"
applies each one to the result of those before it. One that fails is undone, and the next one goes on.
"""

from __future__ import annotations

from collections.abc import Iterable, Iterator
from dataclasses import dataclass
from pathlib import Path

import onnx
from onnx import GraphProto

from onnxgraft.abstract_transformation import nearest_miss
from onnxgraft.catalogue import rows
from onnxgraft.engine import TransformationError, rewrite
from onnxgraft.preparation import prepare
from onnxgraft.recipe_book import find_recipe
from tools.models.families import network_of

QUANTIZING = ("quant_conv", "quant_gemm", "quant_matmul")

# All recipes in one: docs/use/recipes.md gives the reasons.
ORDER = (
    "fuse_bn_quant",
    "change_gap_conv",
    "simplify_shape_v2",
    "replace_quant",
    "update_tesselquant",
    *(f"replace_concat_quant_v{version}" for version in range(1, 11)),
    "delete_concat",
    "replace_quant_v2",
    "replace_resize_quant",
)


@dataclass(frozen=True)
class Firing:
    """The result of one transformation: its count and its callback's refusals, or the error that it raised."""

    replaced: int = 0
    refused: int = 0
    error: str = ""


@dataclass(frozen=True)
class Miss:
    """How far the best pattern of a transformation got at its turn."""

    pair: int
    matched: int
    of: int
    text: str


@dataclass(frozen=True)
class ModelFirings:
    """All counts of one model in one form; transformations that did nothing are left out."""

    preparation: dict[str, int]
    quantized: dict[str, int]
    alone: dict[str, Firing]
    in_order: dict[str, Firing]
    misses: dict[str, Miss]


@dataclass(frozen=True)
class RecipeRun:
    """The result of the network's recipe; the sizes are those after quantizing and at the end."""

    recipe: str
    rounds: int
    nodes: tuple[int, int]
    quantize_nodes: tuple[int, int]
    fired: dict[str, int]
    failed: tuple[str, ...]


def measure(path: Path, *, prepared: bool) -> ModelFirings:
    """Counts on one file, and why the transformations that found nothing in order found nothing."""
    model = onnx.load(path)
    preparation = {step.name: step.changed for step in prepare(model)} if prepared else {}
    quantized = _fired(_run(model, QUANTIZING))
    names = [name for name in rows() if name not in QUANTIZING]
    alone = {name: fire(name, _copy(model)) for name in names}
    misses: dict[str, Miss] = {}
    in_order = dict(_run(model, ORDER, misses))
    return ModelFirings(_positive(preparation), quantized, _something(alone), _something(in_order), misses)


def losses(path: Path, whole: ModelFirings) -> dict[str, dict[str, tuple[int, int]]]:
    """For each preparation step that changes the file: the counts that differ without it, as (with, without)."""
    lost = {}
    counts = {**whole.quantized, **{name: firing.replaced for name, firing in whole.in_order.items()}}
    for step in whole.preparation:
        model = onnx.load(path)
        prepare(model, skip=[step])
        without = _fired(_run(model, (*QUANTIZING, *ORDER)))
        names = [n for n in (*QUANTIZING, *ORDER) if counts.get(n, 0) != without.get(n, 0)]
        lost[step] = {name: (counts.get(name, 0), without.get(name, 0)) for name in names}
    return lost


def run_recipe(path: Path) -> RecipeRun:
    """Runs the recipe of the file's network, going on after failures."""
    model = onnx.load(path)
    recipe = find_recipe(network_of(path.stem).recipe)
    prepare(model, recipe.prepare)
    quantized = _copy(model)
    rewrite(quantized, [n for n in recipe.transformations if n in QUANTIZING], seed=0, prepare=False, details="counts")
    report = rewrite(model, recipe, seed=0, on_error="continue", details="counts")
    fired: dict[str, int] = {}
    for step in report.steps:
        fired[step.transformation] = fired.get(step.transformation, 0) + step.replaced
    failed = tuple(dict.fromkeys(step.transformation for step in report.steps if step.error))
    sizes = [(len(graph.node), sum(node.op_type == "TesselQuant" for node in graph.node))
             for graph in (quantized.graph, model.graph)]  # fmt: skip
    nodes, quantize_nodes = zip(*sizes, strict=True)
    return RecipeRun(recipe.name, report.rounds, nodes, quantize_nodes, _positive(fired), failed)


def fire(name: str, model: onnx.ModelProto) -> Firing:
    """Applies a transformation to `model` in place and counts the refusals too."""
    try:
        step = rewrite(model, [name], seed=0, prepare=False, details="counts").steps[0]
    except TransformationError as error:
        cause = error.__cause__
        return Firing(error=f"{type(cause).__name__}: {cause}".strip())
    return Firing(step.replaced, step.refused)


def _run(
    model: onnx.ModelProto, names: Iterable[str], misses: dict[str, Miss] | None = None
) -> Iterator[tuple[str, Firing]]:
    for name in names:
        miss = _best_miss(name, model.graph) if misses is not None else None
        firing = fire(name, model)
        if misses is not None and miss is not None and firing == Firing():
            misses[name] = miss
        yield name, firing


def _best_miss(name: str, graph: GraphProto) -> Miss | None:
    """The attempt of the pattern that got furthest; None if one of them fits."""
    misses = []
    for number, (pattern, replacement) in enumerate(rows()[name].pairs, 1):
        miss = nearest_miss(graph, list(pattern), list(replacement))
        if miss is None:
            return None
        misses.append(Miss(number, miss["matched"], len(pattern), miss["text"]))
    return max(misses, key=lambda miss: miss.matched / miss.of)


def _fired(firings: Iterable[tuple[str, Firing]]) -> dict[str, int]:
    return _positive({name: firing.replaced for name, firing in firings})


def _positive(counts: dict[str, int]) -> dict[str, int]:
    return {name: count for name, count in counts.items() if count}


def _something(firings: dict[str, Firing]) -> dict[str, Firing]:
    return {name: firing for name, firing in firings.items() if firing != Firing()}


def _copy(model: onnx.ModelProto) -> onnx.ModelProto:
    copy = onnx.ModelProto()
    copy.CopyFrom(model)
    return copy
