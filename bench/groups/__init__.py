"""The groups of measurements of `make bench`; each also runs alone."""

from __future__ import annotations

from collections.abc import Callable, Iterator
from importlib import import_module

from bench.figures import Contest, Figure
from bench.sizes import Sizes

Group = Callable[[Sizes], Iterator[Figure | Contest]]

# Name: module and title.
GROUPS = {
    "floors": ("against_floors", "The library's cost over the unavoidable work"),
    "cold": ("cold", "The first rewrite of a fresh process"),
    "road": ("one_road", "Subclasses and reports compared with the bare class"),
    "peers": ("against_peers", "The same rewrites by other tools"),
    "growth": ("growth", "Ten times as many occurrences"),
    "memory": ("memory", "Peak memory over the model and its new tensors"),
    "models": ("whole_networks", "All transformations on whole networks"),
    "transformations": ("each_transformation", "Each transformation on a chain of its own occurrences"),
}


def load(name: str) -> Group:
    """The function of a group."""
    measure: Group = import_module(f"bench.groups.{GROUPS[name][0]}").measure
    return measure
