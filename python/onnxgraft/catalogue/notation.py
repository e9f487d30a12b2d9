"""Pattern and replacement lists as records, for tools that look at them. The matcher parses the strings itself."""

from __future__ import annotations

from collections.abc import Sequence
from typing import NamedTuple

from onnxgraft.abstract_transformation import parse


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
    """The nodes of a pattern, in its order.

    Raises:
        ValueError: The list does not follow the notation.
    """
    return read_pair(pattern, ())[0]


def read_pair(pattern: Sequence[str], replacement: Sequence[str]) -> tuple[tuple[PatternNode, ...], tuple[Entry, ...]]:
    """The nodes of a pattern and their fate in the replacement."""
    nodes, entries = parse(pattern, replacement)
    return tuple(map(_node, nodes)), tuple(Entry(_node(node), source, kept) for node, source, kept in entries)


def _node(parts: tuple[str, tuple[tuple[str, bool], ...], str, bool]) -> PatternNode:
    op, inputs, output, rest = parts
    return PatternNode(op, tuple(Input(*one) for one in inputs), output, rest)
