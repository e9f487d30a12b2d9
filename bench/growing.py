"""How the time of a rewrite grows with the graph: ten times as much work, compared fairly with ten small runs."""

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
    """Seconds at the largest feasible length over seconds at the one before.

    The shorter graph is rewritten as often as makes up the work of the longer one, in copies that are all made
    beforehand. So both start with as many nodes in cold memory, and both run for as long. The figure's note states the
    ratio to a single short graph that is rewritten right after it was copied.

    Args:
        name: What is measured.
        rewrite: The rewrite to run.
        graph_of: Makes the graph of a length.
        lengths: In rising order, three at least; runs of the first ones predict the time of the others.
        longest: Seconds that one run may take; longer lengths are left out, and the figure's note reports it.
        per_link: Occurrences per unit of length.
        patience: Seconds after which no further round starts.
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
    notes.append(f"{seconds['long'] / seconds['one']:.1f} against one just copied")
    aim = _AIM_PER_TENFOLD * long / short / 10
    return Figure(f"{name}: {long:,} / {short:,}", seconds["long"], seconds["many"] / many, aim, note="; ".join(notes))
