"""The measured rewrites, ready for `fastest`: each call works on a copy of its own and its count is checked."""

from __future__ import annotations

from collections.abc import Callable

import onnx

from bench.timing import Prepare, Work
from bench.workloads import copy_of
from onnxgraft import quant

Rewrite = Callable[[onnx.GraphProto], int]


def quant_conv(graph: onnx.GraphProto) -> int:
    return int(quant.QuantConvTransformation().apply(graph))


def merge(graph: onnx.GraphProto) -> int:
    return int(quant.FuseTesselQuantAnyTransformation().apply(graph))


def pull_up(graph: onnx.GraphProto) -> int:
    return int(quant.ChangeTesselQuantTransformationV2().apply(graph))


def without_operators(graph: onnx.GraphProto) -> int:
    """One pass, for an operator that no chain has."""
    return int(quant.SimplifyShapeV2Transformation().apply(graph))


def on_copies(rewrite: Rewrite, graph: onnx.GraphProto, expected: int, copies: int = 1) -> Prepare:
    """Prepares runs of a rewrite on so many copies; in each of them it must replace `expected` occurrences."""

    def prepare() -> Work:
        made = [copy_of(graph) for _ in range(copies)]

        def work() -> None:
            for copy in made:
                if (replaced := rewrite(copy)) != expected:
                    raise RuntimeError(f"{graph.name}: {replaced} of {expected} occurrences replaced")

        return work

    return prepare
