"""Finds for each node of one graph the same node of the other.

First nodes that are equal in every letter, then nodes that compute the same from the same tensors under any names, then
by outputs, then by node name. Nodes of different operators are never the same.
"""

from __future__ import annotations

from collections.abc import Callable, Hashable, Iterable

from onnxgraft.comparison.outline import Outline


class NodeMatching:
    """Pairs of node indices. `renamed` holds tensors of the first graph that have another name in the second."""

    def __init__(self, before: Outline, after: Outline) -> None:
        self._sides = (before, after)
        self.pairs: dict[int, int] = {}
        self._taken: set[int] = set()
        self.renamed: dict[str, str] = {}
        self._match_inputs()
        self._pair(lambda side, k: (side.contents[k], tuple(side.nodes[k].input), tuple(side.nodes[k].output)))
        self._match_structure()
        self._pair(lambda side, k: (side.contents[k][:2], tuple(side.nodes[k].output)), unique=True)
        self._pair(lambda side, k: (side.contents[k][:2], side.nodes[k].name) if side.nodes[k].name else None, True)
        self._match_structure()

    def pair_up(self, first: int, second: int) -> None:
        """Records two nodes as the same one."""
        before, after = self._sides
        self.pairs[first] = second
        self._taken.add(second)
        for old, new in zip(before.nodes[first].output, after.nodes[second].output, strict=False):
            if old != new and old and new:
                self.renamed[old] = new

    def unmatched(self) -> tuple[list[int], list[int]]:
        """The nodes of either side that have no counterpart."""
        before, after = self._sides
        return (
            [k for k in range(len(before.nodes)) if k not in self.pairs and k not in before.constant_nodes],
            [k for k in range(len(after.nodes)) if k not in self._taken and k not in after.constant_nodes],
        )

    def _match_inputs(self) -> None:
        """Graph inputs by position, if neither has the other one's name."""
        before, after = self._sides
        if len(before.inputs) == len(after.inputs):
            old, new = set(before.inputs), set(after.inputs)
            pairs = zip(before.inputs, after.inputs, strict=True)
            self.renamed.update({a: b for a, b in pairs if a not in new and b not in old})

    def _pair(self, key: Callable[[Outline, int], Hashable], unique: bool = False) -> None:
        """Pairs nodes of equal keys, the first with the first; `unique`: only if a key has one node on each side."""
        groups: dict[Hashable, tuple[list[int], list[int]]] = {}
        for number, (side, free) in enumerate(zip(self._sides, self.unmatched(), strict=True)):
            for k in free:
                if (found := key(side, k)) is not None:
                    groups.setdefault(found, ([], []))[number].append(k)
        for first, second in groups.values():
            if not unique or len(first) == len(second) == 1:
                for pair in zip(first, second, strict=False):
                    self.pair_up(*pair)

    def _match_structure(self) -> None:
        """Nodes with the same operator, attributes and inputs, where inputs are identified by how they are computed."""
        before = self._sides[0]
        free = self.unmatched()
        back = {new: old for old, new in self.renamed.items()}
        written = {name for first in self.pairs for name in before.nodes[first].output if name}
        known = (written, {self.renamed.get(name, name) for name in written})
        keys: tuple[dict[int, Hashable], dict[int, Hashable]] = ({}, {})
        for number, side in enumerate(self._sides):
            for k in free[number]:
                keys[number][k] = self._structure(side, k, keys[number], known[number], back if number else {})
        self._pair(lambda side, k: keys[0 if side is before else 1].get(k))

    @staticmethod
    def _structure(
        side: Outline, index: int, keys: dict[int, Hashable], matched: Iterable[str], back: dict[str, str]
    ) -> int:
        inputs: list[Hashable] = []
        for name in side.nodes[index].input:
            writer = side.writers.get(name)
            if side.is_constant(name):
                inputs.append(side.digest(name))
            elif writer is not None and writer in keys and name not in matched:
                inputs.append((keys[writer], list(side.nodes[writer].output).index(name)))
            else:
                inputs.append(("tensor", back.get(name, name)))
        return hash((side.contents[index], tuple(inputs)))
