"""How the time of a rewrite grows with the graph: ten times as much work in a fair number of times the time."""

from __future__ import annotations

import math
import sys
from collections.abc import Callable, Sequence
from itertools import pairwise

import onnx

from bench.figures import Figure
from bench.rewrites import Rewrite, on_copies
from bench.timing import fastest

_AIM_PER_TENFOLD = 12.0


def growth(
    name: str,
    rewrite: Rewrite,
    graph_of: Callable[[int], onnx.GraphProto],
    lengths: Sequence[int],
    longest: float,
    per_link: int = 1,
    patience: float = 10.0,
) -> Figure:
    """Seconds at the largest length that is within reason over seconds at the one before.

    Args:
        name: What is measured.
        rewrite: What is run.
        graph_of: Makes the graph of a length.
        lengths: In rising order, three at least; runs of the first ones tell how long the others would take.
        longest: Seconds that one run may take; lengths beyond are left out, which the figure's note says.
        per_link: Occurrences per unit of length.
        patience: Seconds after which no further round begins.
    """
    print(f"measuring growth of {name}", file=sys.stderr)
    taken: list[float] = []
    usable = list(lengths)
    note = ""
    for position, length in enumerate(lengths):
        if position > 1:
            step = math.log(length / lengths[position - 1]) / math.log(lengths[1] / lengths[0])
            expected = taken[-1] * (taken[-1] / taken[-2]) ** step
            if expected > longest:
                usable = list(lengths[:position])
                note = f"{length:,} would take about {expected:,.0f} s"
                break
        if length != lengths[-1]:
            taken.append(fastest({name: on_copies(rewrite, graph_of(length), per_link * length)}, 1)[name])
    short, long = list(pairwise(usable))[-1]
    runs = {str(length): on_copies(rewrite, graph_of(length), per_link * length) for length in (short, long)}
    seconds = fastest(runs, 5, patience)
    aim = _AIM_PER_TENFOLD * long / short / 10
    return Figure(f"{name}: {long:,} / {short:,}", seconds[str(long)], seconds[str(short)], aim, note=note)
