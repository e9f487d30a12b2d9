"""Every transformation of the catalogue: its cost if nothing matches, and growth on a chain of its own occurrences."""

from __future__ import annotations

from collections.abc import Iterator
from functools import partial

import onnx
from floors import count_op_type

from bench.figures import Figure
from bench.growing import growth
from bench.occurrences import chain
from bench.sizes import Sizes
from bench.timing import compare
from onnxgraft.catalogue import rows

# One walk for each of the patterns would be 55; a pass without a match may cost a little more.
_PER_PATTERN = 1.2


def measure(sizes: Sizes) -> Iterator[Figure]:
    """One figure after the other."""
    yield finding_nothing(sizes.without, sizes.rounds)
    short, long = sizes.per_transformation
    for name, row in rows().items():
        lengths = [max(1, short // 10), short, long]
        yield growth(name, row.apply, partial(chain, row), lengths, sizes.longest / 3, patience=sizes.patience / 3)


def finding_nothing(nodes: int, rounds: int) -> Figure:
    """All transformations over a graph without any operator of their patterns."""
    graph = onnx.GraphProto()
    for number in range(nodes):
        graph.node.add(op_type="Tanh", name=f"node_{number}", input=[f"t{number}"], output=[f"t{number + 1}"])
    transformations = rows().values()

    def work() -> None:
        for transformation in transformations:
            if transformation.apply(graph):
                raise RuntimeError(f"{transformation.name} found something")

    patterns = sum(len(transformation.pairs) for transformation in transformations)
    return compare(
        f"all {len(transformations)} ({patterns} patterns), {nodes:,} other nodes / F1",
        _PER_PATTERN * patterns,
        lambda: work,
        lambda: lambda: count_op_type(graph, "Conv"),
        rounds,
    )
