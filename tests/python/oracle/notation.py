"""Reads pattern and replacement lists into plain records.

A pair that parses here is valid: whatever the notation forbids is a ValueError before any graph is looked at.
"""

from __future__ import annotations

import re
from collections.abc import Sequence
from dataclasses import dataclass
from functools import lru_cache

_INPUTS = r"(?P<inputs>(?:(?:[0-9]+i?|~i)(?:,(?:[0-9]+i?|~i))*)?)"
_NODE = re.compile(rf"(?P<op>[^:\s#][^:\s]*):{_INPUTS}->(?P<output>[0-9]+)")
_COPY = re.compile(rf"#(?P<source>[0-9]+):{_INPUTS}->(?P<output>[0-9]+)")
_BARE = re.compile(r"#(?P<source>[0-9]+)")


@dataclass(frozen=True)
class Link:
    id: str
    initializer: bool


@dataclass(frozen=True)
class PatternNode:
    op: str
    inputs: tuple[Link, ...]
    rest: bool  # "~i" stands behind the named inputs
    output: str


@dataclass(frozen=True)
class Entry:
    """One string of a replacement: bare "#k" (`kept`), "#k:..." (`source` only) or a new node (`op` only)."""

    source: int | None
    op: str | None
    inputs: tuple[Link, ...]
    output: str

    @property
    def kept(self) -> bool:
        return self.source is not None and self.op is not None

    @property
    def copied(self) -> bool:
        return self.source is not None and self.op is None


@dataclass(frozen=True)
class Pair:
    pattern: tuple[PatternNode, ...]
    replacement: tuple[Entry, ...]

    @property
    def kept(self) -> frozenset[int]:
        return frozenset(e.source for e in self.replacement if e.kept and e.source is not None)

    @property
    def copied(self) -> frozenset[int]:
        return frozenset(e.source for e in self.replacement if e.copied and e.source is not None)

    @property
    def pattern_outputs(self) -> dict[str, int]:
        return {node.output: k for k, node in enumerate(self.pattern)}

    @property
    def pattern_reads(self) -> frozenset[str]:
        return frozenset(link.id for node in self.pattern for link in node.inputs)

    @property
    def replacement_outputs(self) -> frozenset[str]:
        return frozenset(e.output for e in self.replacement)

    @property
    def ids(self) -> frozenset[str]:
        """Every id of both lists."""
        read = {link.id for e in self.replacement for link in e.inputs}
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


def _links(text: str, where: str, rest_allowed: bool) -> tuple[tuple[Link, ...], bool]:
    words = text.split(",") if text else []
    rest = bool(words) and words[-1] == "~i"
    if "~i" in words[:-1] or (rest and not rest_allowed):
        raise ValueError(f"{where}: '~i' stands last, and in patterns only")
    named = words[:-1] if rest else words
    return tuple(Link(w.rstrip("i"), w.endswith("i")) for w in named), rest


def _parse_pattern(strings: Sequence[str]) -> tuple[PatternNode, ...]:
    nodes = []
    for text in strings:
        match = _NODE.fullmatch(text)
        if match is None:
            raise ValueError(f"{text!r} is no pattern node")
        inputs, rest = _links(match["inputs"], text, rest_allowed=True)
        nodes.append(PatternNode(match["op"], inputs, rest, match["output"]))
    if not nodes:
        raise ValueError("the pattern is empty")
    _check_writers([n.output for n in nodes], [link for n in nodes for link in n.inputs])
    return tuple(nodes)


def _parse_entry(text: str, pattern: tuple[PatternNode, ...]) -> Entry:
    match = _BARE.fullmatch(text) or _COPY.fullmatch(text)
    if match is not None:
        source = int(match["source"])
        if source >= len(pattern):
            raise ValueError(f"{text}: the pattern has no node {source}")
        if ":" not in text:
            node = pattern[source]
            return Entry(source, node.op, node.inputs, node.output)
        return Entry(source, None, _links(match["inputs"], text, rest_allowed=False)[0], match["output"])
    match = _NODE.fullmatch(text)
    if match is None:
        raise ValueError(f"{text!r} is no replacement node")
    return Entry(None, match["op"], _links(match["inputs"], text, rest_allowed=False)[0], match["output"])


def _check_writers(outputs: list[str], inputs: list[Link]) -> None:
    for output in outputs:
        if outputs.count(output) > 1:
            raise ValueError(f"tensor {output} is written twice")
    for link in inputs:
        if link.initializer and link.id in outputs:
            raise ValueError(f"{link.id}i is no initializer, a node writes it")


@lru_cache(maxsize=4096)
def _parse(pattern: tuple[str, ...], replacement: tuple[str, ...]) -> Pair:
    nodes = _parse_pattern(pattern)
    entries = tuple(_parse_entry(text, nodes) for text in replacement)
    pair = Pair(nodes, entries)
    read = [link for e in entries for link in e.inputs]
    _check_writers([e.output for e in entries], read)
    marked = {link.id for n in nodes for link in n.inputs if link.initializer}
    old = pair.pattern_reads | pair.pattern_outputs.keys()
    outside = pair.pattern_reads - pair.pattern_outputs.keys()
    provided = outside | pair.replacement_outputs | {link.id for link in read if link.initializer}
    for link in read:
        if link.initializer and link.id in old and link.id not in marked:
            raise ValueError(f"{link.id}i: the pattern has {link.id} without 'i'")
        if link.id not in provided:
            raise ValueError(f"nothing provides {link.id} of the replacement")
    for e in entries:
        if e.output in outside:
            raise ValueError(f"the replacement writes {e.output}, an outside input")
    return pair


def parse_pair(pattern: Sequence[str], replacement: Sequence[str]) -> Pair:
    """The checked pair; ValueError names the string or id at fault."""
    return _parse(tuple(pattern), tuple(replacement))
