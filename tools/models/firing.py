"""Counts how often each transformation fires on a model, alone and in the family's order.

Every count starts from the quantized graph. "Alone" takes a fresh copy of it for each transformation; "in order" lets
each one see what those before it left, and ends at the first one that fails.
"""

from __future__ import annotations

import types
from collections.abc import Sequence
from dataclasses import dataclass
from pathlib import Path
from typing import Any

import numpy as np
import onnx
from onnx import GraphProto

from onnxgraft.abstract_transformation import nearest_miss
from onnxgraft.catalogue import Transformation, rows
from tools.models.preparation import prepare

QUANTIZING = ("quant_conv", "quant_gemm", "quant_matmul")

# Normalization first, since it wants two quantize nodes; merging before pulling up, since a concatenation read by two
# quantize nodes matches nothing; the special forms of a concatenation before the general one.
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
    """What one transformation did: a count and how many occurrences its callback refused, or the error it raised."""

    replaced: int = 0
    refused: int = 0
    error: str = ""


@dataclass(frozen=True)
class ModelFirings:
    """All counts of one model in one form; transformations that did nothing are left out."""

    preparation: dict[str, int]
    quantized: dict[str, int]
    alone: dict[str, Firing]
    in_order: dict[str, Firing]


@dataclass(frozen=True)
class Miss:
    """How far the best pattern of a transformation got when its turn came."""

    pair: int
    matched: int
    of: int
    text: str


def measure(path: Path, *, prepared: bool) -> tuple[ModelFirings, dict[str, Miss]]:
    """Counts on one file, and why the transformations that found nothing in order found nothing."""
    model = onnx.load(path)
    preparation = {name: count for name, count in prepare(model).items() if count} if prepared else {}
    np.random.seed(0)
    quantized = {name: rows()[name].apply(model.graph) for name in QUANTIZING}
    alone = {name: fire(rows()[name], _copy(model.graph)) for name in rows()}
    alone = {name: firing for name, firing in alone.items() if name not in QUANTIZING}
    in_order, misses = _in_order(_copy(model.graph), ORDER)
    counts = (dict(_something(one)) for one in (alone, in_order))
    return ModelFirings(preparation, {n: c for n, c in quantized.items() if c}, *counts), misses


def fire(transformation: Transformation, graph: GraphProto) -> Firing:
    """Applies a transformation to `graph` in place and counts the refusals too."""
    refused = 0

    def count(self: Any, *arguments: Any, **keywords: Any) -> bool:
        nonlocal refused
        accepted = bool(transformation.cls._on_replace_subgraph(self, *arguments, **keywords))
        refused += not accepted
        return accepted

    methods = {"_on_replace_subgraph": count}
    counting = types.new_class(
        transformation.cls.__name__, (transformation.cls,), exec_body=lambda n: n.update(methods)
    )
    try:
        return Firing(int(counting().apply(graph)), refused)
    except (ArithmeticError, LookupError, TypeError, ValueError) as error:
        return Firing(error=f"{type(error).__name__}: {error}".strip())


def _in_order(graph: GraphProto, names: Sequence[str]) -> tuple[dict[str, Firing], dict[str, Miss]]:
    firings: dict[str, Firing] = {}
    misses: dict[str, Miss] = {}
    for name in names:
        transformation = rows()[name]
        miss = _best_miss(transformation, graph)
        firings[name] = fire(transformation, graph)
        if firings[name] == Firing() and miss:
            misses[name] = miss
        if firings[name].error:
            break
    return firings, misses


def _best_miss(transformation: Transformation, graph: GraphProto) -> Miss | None:
    """The attempt of the pattern that got furthest; None if one of them fits."""
    misses = []
    for number, (pattern, replacement) in enumerate(transformation.pairs, 1):
        miss = nearest_miss(graph, list(pattern), list(replacement))
        if miss is None:
            return None
        misses.append(Miss(number, miss["matched"], len(pattern), miss["text"]))
    return max(misses, key=lambda miss: miss.matched / miss.of)


def _something(firings: dict[str, Firing]) -> list[tuple[str, Firing]]:
    return [(name, firing) for name, firing in firings.items() if firing != Firing()]


def _copy(graph: GraphProto) -> GraphProto:
    copy = GraphProto()
    copy.CopyFrom(graph)
    return copy
