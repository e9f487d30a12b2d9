"""The cost of what users run instead of the bare built-in class: a subclass as documented, and `rewrite`."""

from __future__ import annotations

from collections.abc import Callable, Iterator
from typing import Any

import onnx

from bench.figures import Figure
from bench.rewrites import on_copies, pull_up, quant_conv
from bench.sizes import Sizes
from bench.timing import compare
from bench.workloads import chain_model
from onnxgraft import quant, rewrite


class Documented(quant.AbstractPullUpTesselQuantTransformation):
    """Derived as docs/reference/transformations/quant-pull-up.md describes."""

    def _get_subgraphs_to_replace(self) -> Any:
        return quant.ChangeTesselQuantTransformationV2()._get_subgraphs_to_replace()


def measure(sizes: Sizes) -> Iterator[Figure]:
    """One figure after the other."""
    joins, convolutions = sizes.subclass, sizes.details
    chain = chain_model("pull_up", joins).graph
    yield compare(
        f"a subclass, {joins:,} pull-ups / the built-in class",
        1.3,
        on_copies(lambda graph: int(Documented().apply(graph)), chain, joins),
        on_copies(pull_up, chain, joins),
        sizes.rounds,
    )
    chain = chain_model("conv", convolutions).graph
    for details, aim in (("nodes", 1.25), ("neighbours", 1.6)):
        yield compare(
            f"rewrite with {details}, {convolutions:,} Conv / the bare class",
            aim,
            on_copies(_rewriting(details), chain, convolutions),
            on_copies(quant_conv, chain, convolutions),
            sizes.rounds,
        )


def _rewriting(details: Any) -> Callable[[onnx.GraphProto], int]:
    return lambda graph: rewrite(graph, "quant_conv", prepare=False, details=details).replaced
