"""Combines the nodes of a very large network into blocks that a map can show.

Blocks are runs of nodes in graph order. Exporters write the modules of a network one after the other, so a run is cut
where neighbouring names share the fewest parts: between modules rather than inside one.
"""

from __future__ import annotations

import re
from collections.abc import Sequence
from dataclasses import dataclass

_PARTS = re.compile(r"[^/.]+")


@dataclass(frozen=True)
class Block:
    """The nodes from `start` up to `stop`, and the common prefix of their names."""

    start: int
    stop: int
    label: str


def blocks_of(names: Sequence[str], wanted: int) -> list[Block]:
    """About `wanted` blocks of all nodes; none has more than three halves of the mean size."""
    count = len(names)
    size = max(1, -(-count // wanted))
    parts = [tuple(_PARTS.findall(name)[:-1]) for name in names]  # the last part is the node's own
    common = [0, *(_shared(parts[k - 1], parts[k]) for k in range(1, count))]
    blocks, start = [], 0
    while start < count:
        stop = count
        if count - start > size * 3 // 2:
            places = range(start + max(1, size // 2), start + max(2, size * 3 // 2))
            stop = min(places, key=lambda place: (common[place], abs(place - start - size)))
        blocks.append(Block(start, stop, _label(names, parts, start, stop)))
        start = stop
    return blocks


def _shared(first: Sequence[str], second: Sequence[str]) -> int:
    """How many parts at the start are the same."""
    count = 0
    for a, b in zip(first, second, strict=False):
        if a != b:
            break
        count += 1
    return count


def _label(names: Sequence[str], parts: Sequence[tuple[str, ...]], start: int, stop: int) -> str:
    # Of the names in alphabetical order, the first and the last one share the least.
    low, high = min(parts[start:stop]), max(parts[start:stop])
    if shared := low[: _shared(low, high)]:
        return "/".join(shared)
    return names[start] if stop - start == 1 else f"{names[start]} … {names[stop - 1]}"


def block_edges(blocks: Sequence[Block], edges: Sequence[tuple[int, int]]) -> list[tuple[int, int]]:
    """The edges from one block to another, each once."""
    block = [number for number, one in enumerate(blocks) for _ in range(one.start, one.stop)]
    pairs = dict.fromkeys((block[writer], block[reader]) for writer, reader in edges)
    return [(writer, reader) for writer, reader in pairs if writer != reader]
