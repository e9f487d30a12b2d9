"""Pattern and replacement lists as records, for tools that look at them.

Only for lists that the matcher accepts: it checks them, with messages that name the string and the column.
"""

from __future__ import annotations

from collections.abc import Sequence
from dataclasses import dataclass

_REST = "~i"


@dataclass(frozen=True)
class Input:
    """One input of a node: the id of a tensor, and whether the pattern wants an initializer there."""

    id: str
    initializer: bool


@dataclass(frozen=True)
class PatternNode:
    """One string: an operator with named inputs; `rest` says that initializers may follow them ("~i")."""

    op: str
    inputs: tuple[Input, ...]
    output: str
    rest: bool = False


@dataclass(frozen=True)
class Entry:
    """One string of a replacement, filled in from the pattern where it only names a number.

    `source` is the number of the pattern node that stays (`kept`) or is copied; None for a new node.
    """

    node: PatternNode
    source: int | None
    kept: bool


def read_pattern(pattern: Sequence[str]) -> tuple[PatternNode, ...]:
    """The nodes of a pattern, in its order."""
    return tuple(_read_node(*text.split(":", 1)) for text in pattern)


def read_pair(pattern: Sequence[str], replacement: Sequence[str]) -> tuple[tuple[PatternNode, ...], tuple[Entry, ...]]:
    """The nodes of a pattern and what the replacement makes of them."""
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
