"""Groups nodes that differ into regions: writers and readers of a common tensor belong together."""

from __future__ import annotations

from collections.abc import Iterable, Sequence

from onnxgraft.comparison.outline import Outline
from onnxgraft.graph.surroundings import Surroundings


class Groups:
    """Disjoint sets of hashable things."""

    def __init__(self) -> None:
        self._parents: dict[object, object] = {}

    def find(self, thing: object) -> object:
        """The representative of a thing's set."""
        root = thing
        while (parent := self._parents.setdefault(root, root)) != root:
            root = parent
        while thing != root:
            self._parents[thing], thing = root, self._parents[thing]
        return root

    def join(self, first: object, second: object) -> None:
        """Merges two sets."""
        self._parents[self.find(first)] = self.find(second)


def group(
    sides: tuple[Outline, Outline], different: tuple[Sequence[int], Sequence[int]], pairs: dict[int, int]
) -> list[tuple[list[int], list[int]]]:
    """The regions, by the place of their first node; of each the nodes on either side, in graph order.

    Args:
        sides: The graphs.
        different: The nodes of each side that are removed, added or changed.
        pairs: The counterparts of the first side's nodes.
    """
    groups = Groups()
    for number, (side, nodes) in enumerate(zip(sides, different, strict=True)):
        own = set(nodes)
        for index in nodes:
            element = (number, index)
            for name in side.nodes[index].output:
                if name:
                    groups.join(element, name)
            for name in side.nodes[index].input:
                if side.writers.get(name) in own:
                    groups.join(element, name)
    for first in different[0]:
        if first in pairs:
            groups.join((0, first), (1, pairs[first]))
    regions: dict[object, tuple[list[int], list[int]]] = {}
    for number, nodes in enumerate(different):
        for index in nodes:
            regions.setdefault(groups.find((number, index)), ([], []))[number].append(index)
    return sorted(regions.values(), key=_place)


def _place(region: tuple[list[int], list[int]]) -> tuple[int, int]:
    before, after = region
    return (before or after)[0], (after or before)[0]


def neighbours(side: Outline, around: Surroundings, nodes: Sequence[int], most: int) -> Iterable[int]:
    """Nodes next to a region, in graph order; at most `most`."""
    own = set(nodes)
    found = {side.writers.get(name) for index in nodes for name in side.nodes[index].input}
    for index in nodes:
        for name in side.nodes[index].output:
            found.update(around.readers(name)[:most] if name else ())
    return sorted(index for index in found - own if index is not None)[:most]
