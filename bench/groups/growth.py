"""Growth of each kind of work, up to the longest chains."""

from __future__ import annotations

from collections.abc import Iterator
from dataclasses import replace
from functools import partial

import onnx
from floors import length_of_all_names

from bench import rewrites
from bench.figures import Figure
from bench.growing import growth
from bench.sizes import Sizes
from bench.workloads import chain_model

# Title of the figure: the rewrite, the kind of chain, the occurrences per link.
_KINDS = {
    "quant_conv": (rewrites.quant_conv, "conv", 1),
    "replace_quant_any (merging)": (rewrites.merge, "merge", 1),
    "replace_quant_v2 (pull-up)": (rewrites.pull_up, "pull_up", 1),
    "pass without occurrence": (rewrites.without_operators, "conv", 0),
    "quant_conv, all refused": (rewrites.quant_conv, "refused", 0),
}


def measure(sizes: Sizes) -> Iterator[Figure]:
    """One figure per kind."""
    lengths = [max(1, sizes.chains[0] // 10), *sizes.chains]
    patience = 5 * sizes.patience  # the longest chains take half a minute in all, and one round would be too noisy
    for name, (rewrite, kind, per_link) in _KINDS.items():
        yield growth(name, rewrite, partial(_chain, kind), lengths, sizes.longest, per_link, patience)
    for kind in ("merge", "pull_up"):
        name = f"F2 alone, on the chain of {kind.replace('_', '-')}s"
        figure = growth(name, _read, partial(_chain, kind), lengths, sizes.longest, 0, patience)
        yield replace(figure, aim=None)


def _read(graph: onnx.GraphProto) -> int:
    length_of_all_names(graph)
    return 0


def _chain(kind: str, length: int) -> onnx.GraphProto:
    return chain_model(kind, length).graph
