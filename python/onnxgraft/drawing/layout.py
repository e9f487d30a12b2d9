"""Places the boxes of a small graph in layers, with few crossings and short edges.

Everything that needs room is an item: a node, a tensor from outside, a result, or the spot where an edge passes a
layer. Edges run only from one layer to the next. The input is sizes, the output positions; nothing here draws.
"""

from __future__ import annotations

import math
from collections.abc import Mapping, Sequence
from dataclasses import dataclass, field
from itertools import pairwise

GAP_X, GAP_Y = 22.0, 36.0
_SWEEPS = 24
_STRAIGHT = 8  # how much more a chain, or an edge that passes layers, is pulled straight


@dataclass
class Item:
    """A box of `width` x `height` with its centre at (x, y)."""

    width: float
    height: float
    layer: int = 0
    x: float = 0.0
    y: float = 0.0


@dataclass(frozen=True)
class Edge:
    """From an item to input `port` of `ports` of another one; `via` are the spots in between."""

    start: str
    end: str
    port: int
    ports: int
    via: tuple[str, ...] = ()


@dataclass
class Layout:
    """Items by name, in drawing order of their layers."""

    items: dict[str, Item]
    edges: list[Edge]
    width: float = 0.0
    height: float = 0.0
    layers: list[list[str]] = field(default_factory=list)

    def entry(self, edge: Edge) -> float:
        """Where an edge meets the top of its end."""
        item = self.items[edge.end]
        step = min(26.0, item.width / (edge.ports + 1))
        return item.x + (edge.port - (edge.ports - 1) / 2) * step


def place(
    sizes: Mapping[str, tuple[float, float]], reads: Mapping[str, Sequence[str]], *, still: float = 0.0
) -> Layout:
    """Places items.

    Args:
        sizes: Width and height of each.
        reads: The items that each one reads, in order of its inputs.
        still: The work ends once no item moves that far any more.
    """
    items = {name: Item(width, height) for name, (width, height) in sizes.items()}
    edges = [Edge(source, name, k, len(sources)) for name, sources in reads.items() for k, source in enumerate(sources)]
    _set_layers(items, reads)
    layout = Layout(items, [_with_spots(items, edge) for edge in edges])
    steps = [pair for edge in layout.edges for pair in pairwise((edge.start, *edge.via, edge.end))]
    layout.layers = _first_order(items, reads, layout.edges)
    _reduce_crossings(layout, steps)
    _set_x(layout, still)
    _set_y(layout)
    return layout


def _set_layers(items: dict[str, Item], reads: Mapping[str, Sequence[str]]) -> None:
    """Longest path from above; an item that reads only outside tensors moves down to its reader."""
    readers: dict[str, list[str]] = {name: [r for r in items if name in reads.get(r, ())] for name in items}
    for _ in items:
        for name, item in items.items():
            item.layer = max((items[source].layer + 1 for source in reads.get(name, ())), default=0)
    for _ in items:
        for name, item in items.items():
            sources = reads.get(name, ())
            if readers[name] and not any(reads.get(source) for source in sources):
                item.layer = min(items[reader].layer for reader in readers[name]) - 1
    highest = min(item.layer for item in items.values())
    for item in items.values():
        item.layer -= highest


def _with_spots(items: dict[str, Item], edge: Edge) -> Edge:
    """Gives an edge over several layers a spot in each; edges of one tensor share them."""
    first, last = items[edge.start].layer + 1, items[edge.end].layer
    via = tuple(f"{edge.start}|{edge.end}|{edge.port}|{layer}" for layer in range(first, last))
    for layer, name in zip(range(first, last), via, strict=True):
        items[name] = Item(4.0, 0.0, layer)
    return Edge(edge.start, edge.end, edge.port, edge.ports, via)


def _first_order(items: dict[str, Item], reads: Mapping[str, Sequence[str]], edges: Sequence[Edge]) -> list[list[str]]:
    """From the results upwards, inputs from left to right."""
    layers: list[list[str]] = [[] for _ in range(1 + max(item.layer for item in items.values()))]
    incoming: dict[str, list[Edge]] = {name: [] for name in items}
    for edge in edges:
        incoming[edge.end].append(edge)
    seen: set[str] = set()

    def visit(name: str) -> None:
        if name in seen:
            return
        seen.add(name)
        for edge in incoming[name]:
            for spot in reversed(edge.via):
                layers[items[spot].layer].append(spot)
            visit(edge.start)
        layers[items[name].layer].append(name)

    read = {source for sources in reads.values() for source in sources}
    for name in [name for name in incoming if name not in read and "|" not in name]:
        visit(name)
    return layers


def _reduce_crossings(layout: Layout, steps: Sequence[tuple[str, str]]) -> None:
    """Sorts layers by the mean place of their neighbours, alternating down and up; keeps the best order found."""
    best, fewest = [list(layer) for layer in layout.layers], _crossings(layout)
    for sweep in range(_SWEEPS):
        if fewest == 0:
            break
        down = sweep % 2 == 0
        for layer in layout.layers if down else reversed(layout.layers):
            rank = {name: k for names in layout.layers for k, name in enumerate(names)}
            near: dict[str, list[int]] = {name: [] for name in layer}
            for start, end in steps:
                name, other = (end, start) if down else (start, end)
                if name in near:
                    near[name].append(rank[other])
            layer.sort(key=lambda n: sum(near[n]) / len(near[n]) if near[n] else rank[n])
        count = _crossings(layout)
        if count < fewest:
            best, fewest = [list(layer) for layer in layout.layers], count
    layout.layers = best


def _crossings(layout: Layout) -> int:
    rank = {name: float(k) for names in layout.layers for k, name in enumerate(names)}
    lines: list[tuple[int, float, float]] = []
    for edge in layout.edges:
        way = (edge.start, *edge.via, edge.end)
        for start, end in pairwise(way):
            port = (edge.port + 1) / (edge.ports + 2) - 0.5 if end == edge.end else 0.0
            lines.append((layout.items[start].layer, rank[start], rank[end] + port))
    return sum((a[1] - b[1]) * (a[2] - b[2]) < 0 for k, a in enumerate(lines) for b in lines[:k] if a[0] == b[0])


def _set_x(layout: Layout, still: float) -> None:
    """Pulls every item towards its neighbours, layer by layer, without overlaps."""
    items = layout.items
    for layer in layout.layers:
        _spread(items, layer, [k * 60.0 for k in range(len(layer))])
    pulls = _pulls(layout)
    quiet = 0
    for sweep in range(6 * _SWEEPS):
        layers = layout.layers if sweep % 2 == 0 else layout.layers[::-1]
        before = [item.x for item in items.values()]
        for layer in layers:
            _spread(items, layer, [_wanted(items, name, pulls[name]) for name in layer])
        quiet = quiet + 1 if _has_settled(before, items, still) else 0
        if quiet == 2:  # downwards and upwards
            break
    for layer in layout.layers:  # finally chains hang straight down
        _spread(items, layer, [_above(items, name, pulls[name]) for name in layer])
    left = min(item.x - item.width / 2 for item in items.values())
    for item in items.values():
        item.x -= left
    layout.width = max(item.x + item.width / 2 for item in items.values())


def _has_settled(before: Sequence[float], items: Mapping[str, Item], still: float) -> bool:
    return all(abs(x - item.x) < still for x, item in zip(before, items.values(), strict=True))


def _pulls(layout: Layout) -> dict[str, list[tuple[str, float, int]]]:
    """For every item its neighbours, its wanted distance from their centre, and the strength of the pull."""
    pulls: dict[str, list[tuple[str, float, int]]] = {name: [] for name in layout.items}
    starts = [edge.start for edge in layout.edges]
    for edge in layout.edges:
        for start, end in pairwise((edge.start, *edge.via, edge.end)):
            entry = layout.entry(edge) - layout.items[end].x if end == edge.end else 0.0
            passes = start != edge.start and end != edge.end
            chain = edge.ports == 1 and starts.count(edge.start) == 1
            weight = _STRAIGHT if passes or chain else 1
            pulls[start].append((end, entry, weight))
            pulls[end].append((start, -entry, weight))
    return pulls


def _wanted(items: dict[str, Item], name: str, pulls: Sequence[tuple[str, float, int]]) -> float:
    """The weighted mean of the positions that the edges of an item pull it to."""
    if not pulls:
        return items[name].x
    return math.fsum((items[other].x + shift) * weight for other, shift, weight in pulls) / math.fsum(
        w for _, _, w in pulls
    )


def _above(items: dict[str, Item], name: str, pulls: Sequence[tuple[str, float, int]]) -> float:
    """The place below the item that a chain comes from, otherwise the item's own place."""
    straight = [other for other, _, weight in pulls if weight == _STRAIGHT and items[other].layer < items[name].layer]
    return items[straight[0]].x if straight else items[name].x


def _spread(items: dict[str, Item], layer: Sequence[str], wanted: Sequence[float]) -> None:
    """The places nearest to the wanted ones (least squares) that keep order and gaps."""
    offset, offsets = 0.0, []
    for k, name in enumerate(layer):
        if k:
            offset += (items[layer[k - 1]].width + items[name].width) / 2 + GAP_X
        offsets.append(offset)
    blocks: list[tuple[float, int]] = []  # mean and size of neighbours that touch
    for target, shift in zip(wanted, offsets, strict=True):
        blocks.append((target - shift, 1))
        while len(blocks) > 1 and blocks[-2][0] > blocks[-1][0]:
            (mean_b, size_b), (mean_a, size_a) = blocks.pop(), blocks.pop()
            blocks.append(((mean_a * size_a + mean_b * size_b) / (size_a + size_b), size_a + size_b))
    means = [mean for mean, size in blocks for _ in range(size)]
    for name, mean, shift in zip(layer, means, offsets, strict=True):
        items[name].x = mean + shift


def _set_y(layout: Layout) -> None:
    y = bottom = 0.0
    for layer in layout.layers:
        height = max(layout.items[name].height for name in layer)
        for name in layer:
            layout.items[name].y = y + height / 2
        bottom = y + height
        y = bottom + _gap_below(layout, layer)
    layout.height = bottom


def _gap_below(layout: Layout, layer: Sequence[str]) -> float:
    """More room if edges go far sideways, so that they do not lie flat."""
    names, farthest = set(layer), 0.0
    for edge in layout.edges:
        for start, end in pairwise((edge.start, *edge.via, edge.end)):
            if start in names:
                entry = layout.entry(edge) if end == edge.end else layout.items[end].x
                farthest = max(farthest, abs(entry - layout.items[start].x))
    return GAP_Y + min(30.0, farthest / 8)
