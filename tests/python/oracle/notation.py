"""Pattern and replacement lists as records, and properties that follow from the lists alone.

This is a second parser: a fault in either one makes the two sides of a comparison differ.
"""

from collections.abc import Sequence
from dataclasses import dataclass
from functools import lru_cache
from typing import NamedTuple

_REST = "~i"


class Input(NamedTuple):
    """One input of a node: the id of a tensor, and whether the pattern requires an initializer there."""

    id: str
    initializer: bool


class PatternNode(NamedTuple):
    """One string: an operator with named inputs; `rest` says that initializers may follow them ("~i")."""

    op: str
    inputs: tuple[Input, ...]
    output: str
    rest: bool = False


class Entry(NamedTuple):
    """One string of a replacement, completed from the pattern if it only gives a number.

    `source` is the number of the pattern node that stays (`kept`) or is copied; None for a new node.
    """

    node: PatternNode
    source: int | None
    kept: bool


def read_pattern(pattern: Sequence[str]) -> tuple[PatternNode, ...]:
    return tuple(_read_node(*text.split(":", 1)) for text in pattern)


def read_pair(pattern: Sequence[str], replacement: Sequence[str]) -> tuple[tuple[PatternNode, ...], tuple[Entry, ...]]:
    nodes = read_pattern(pattern)
    entries = []
    for text in replacement:
        head, _, links = text.partition(":")
        source = int(head[1:]) if head.startswith("#") else None
        if source is None:
            entries.append(Entry(_read_node(head, links), None, False))
        elif links:
            entries.append(Entry(_read_node(nodes[source].op, links), source, False))
        else:
            entries.append(Entry(nodes[source], source, True))
    return nodes, tuple(entries)


def _read_node(op: str, links: str) -> PatternNode:
    reads, _, output = links.partition("->")
    words = [word for word in reads.split(",") if word]
    inputs = tuple(Input(word.removesuffix("i"), word.endswith("i")) for word in words if word != _REST)
    return PatternNode(op, inputs, output, rest=_REST in words)


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
        """The pattern nodes that are connected with node 0 through shared ids, node 0 included."""
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
