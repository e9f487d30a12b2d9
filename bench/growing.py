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

    The shorter graph is rewritten as often as makes the work of the longer one, in copies that are all made before. So
    both begin with as many nodes in memory that the processor has not just touched, and both are disturbed for as long.
    What comes out against a single short graph, rewritten as soon as it was copied, stands in the figure's note.

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
    notes: list[str] = []
    for position, length in enumerate(lengths):
        if position > 1:
            step = math.log(length / lengths[position - 1]) / math.log(lengths[1] / lengths[0])
            expected = taken[-1] * (taken[-1] / taken[-2]) ** step
            if expected > longest:
                usable = list(lengths[:position])
                notes.append(f"{length:,} would take about {expected:,.0f} s")
                break
        if length != lengths[-1]:
            taken.append(fastest({name: on_copies(rewrite, graph_of(length), per_link * length)}, 1)[name])
    short, long = list(pairwise(usable))[-1]
    many = long // short
    runs = {
        "long": on_copies(rewrite, graph_of(long), per_link * long),
        "many": on_copies(rewrite, graph_of(short), per_link * short, many),
        "one": on_copies(rewrite, graph_of(short), per_link * short),
    }
    seconds = fastest(runs, 5, patience)
    notes.append(f"{seconds['long'] / seconds['one']:.1f} against one that was just copied")
    aim = _AIM_PER_TENFOLD * long / short / 10
    return Figure(f"{name}: {long:,} / {short:,}", seconds["long"], seconds["many"] / many, aim, note="; ".join(notes))
