"""Pattern and replacement lists as records, with what follows from the lists alone.

The strings are taken apart by the package's reader for tools, which the compiled matcher does not share: a fault in
either of them makes the two sides of a comparison differ.
"""

from collections.abc import Sequence
from dataclasses import dataclass
from functools import lru_cache

from onnxgraft.matching.notation import Entry, PatternNode, read_pair


@dataclass(frozen=True)
class Pair:
    pattern: tuple[PatternNode, ...]
    replacement: tuple[Entry, ...]

    @property
    def kept(self) -> frozenset[int]:
        return frozenset(e.source for e in self.replacement if e.kept and e.source is not None)

    @property
    def copied(self) -> frozenset[int]:
        return frozenset(e.source for e in self.replacement if not e.kept and e.source is not None)

    @property
    def pattern_outputs(self) -> dict[str, int]:
        return {node.output: k for k, node in enumerate(self.pattern)}

    @property
    def pattern_reads(self) -> frozenset[str]:
        return frozenset(link.id for node in self.pattern for link in node.inputs)

    @property
    def replacement_outputs(self) -> frozenset[str]:
        return frozenset(e.node.output for e in self.replacement)

    @property
    def ids(self) -> frozenset[str]:
        """Every id of both lists."""
        read = {link.id for e in self.replacement for link in e.node.inputs}
        return self.pattern_reads | self.pattern_outputs.keys() | self.replacement_outputs | read

    @property
    def first_part(self) -> tuple[int, ...]:
        """The pattern nodes that hang together with node 0 through shared ids, node 0 included."""
        part, ids = {0}, set(_node_ids(self.pattern[0]))
        while True:
            more = {k for k, node in enumerate(self.pattern) if ids & set(_node_ids(node))} - part
            if not more:
                return tuple(sorted(part))
            part |= more
            ids |= {i for k in more for i in _node_ids(self.pattern[k])}


def _node_ids(node: PatternNode) -> tuple[str, ...]:
    return (*(link.id for link in node.inputs), node.output)


@lru_cache(maxsize=4096)
def _parse(pattern: tuple[str, ...], replacement: tuple[str, ...]) -> Pair:
    return Pair(*read_pair(pattern, replacement))


def parse_pair(pattern: Sequence[str], replacement: Sequence[str]) -> Pair:
    """The pair; its lists must be valid."""
    return _parse(tuple(pattern), tuple(replacement))
