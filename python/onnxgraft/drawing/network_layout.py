"""Places the nodes of a whole network for a map: ranks by longest path, from left to right, folded like lines of text.

Everything except the sorting of columns is linear in nodes and edges. An edge over a few columns has a lane of its own
in each of them, which all readers of one node share. A longer one is drawn straight across the map, so that many long
edges do not make millions of lanes. Input and output are only numbers: what a node is, and how it looks, is decided
elsewhere.
"""

from __future__ import annotations

import math
from bisect import bisect_right, insort
from collections import deque
from collections.abc import Iterable, Iterator, Sequence
from dataclasses import dataclass, field

NODE_WIDTH, NODE_HEIGHT = 44, 15
COLUMN, LANE = 60, 22
_ROW_GAP, _MARGIN = 26, 14
_THIN = 0.45  # a lane of an edge, measured in lanes of nodes
_LONGEST = (40, 20, 10, 5, 2)  # columns that an edge may pass in lanes of its own, the first that keeps lanes few
_MOST_LANES = 3  # for each node and edge
_TALLEST = 48  # nodes in one column
_SWEEPS = 8
_ASPECT = 2.3  # width by height that the fold aims at
_MOST_ROWS = 80


@dataclass
class NetworkLayout:
    """Upper left corners of the nodes, in the order in which they were given, and path data of the edges."""

    x: list[int] = field(default_factory=list)
    y: list[int] = field(default_factory=list)
    near: str = ""
    far: str = ""
    width: int = 0
    height: int = 0


def lay_out(count: int, edges: Sequence[tuple[int, int]]) -> NetworkLayout:
    """Places `count` nodes; `edges` lead from a writer to a reader, each once. Cycles are cut where they come up."""
    columns = _columns(_ranks(count, edges), count)
    lanes = _Lanes(count, edges, columns)
    _order(lanes)
    heights = _heights(lanes)
    return _fold(lanes, heights)


def ranks_in_order(count: int, edges: Iterable[tuple[int, int]]) -> tuple[list[int], list[int]]:
    """The longest path to each node, and the nodes in an order in which writers come before their readers.

    If a cycle leaves no such order, the first remaining node is taken without waiting for its writers.
    """
    readers: list[list[int]] = [[] for _ in range(count)]
    waiting = [0] * count
    for writer, reader in edges:
        readers[writer].append(reader)
        waiting[reader] += 1
    rank, taken = [0] * count, [False] * count
    order: list[int] = []
    ready = deque(node for node in range(count) if not waiting[node])
    first = 0
    while len(order) < count:
        if not ready:
            while taken[first]:
                first += 1
            ready.append(first)
        node = ready.popleft()
        if taken[node]:
            continue
        taken[node] = True
        order.append(node)
        for reader in readers[node]:
            if not taken[reader]:
                rank[reader] = max(rank[reader], rank[node] + 1)
                waiting[reader] -= 1
                if not waiting[reader]:
                    ready.append(reader)
    return rank, order


def _ranks(count: int, edges: Sequence[tuple[int, int]]) -> list[int]:
    """A node that reads no other node, such as a constant, goes to the column before its first reader."""
    rank, _ = ranks_in_order(count, edges)
    reads = [False] * count
    first: dict[int, int] = {}
    for writer, reader in edges:
        reads[reader] = True
        first[writer] = min(first.get(writer, rank[reader]), rank[reader])
    return [
        max(first[node] - 1, 0) if node in first and not reads[node] else rank[node] for node in range(count)
    ]  # fmt: skip


def _columns(rank: Sequence[int], count: int) -> list[int]:
    """The column of each node: its rank, with several columns for ranks with too many nodes."""
    members: list[list[int]] = [[] for _ in range(max(rank, default=-1) + 1)]
    for node in range(count):
        members[rank[node]].append(node)
    columns, column = [0] * count, 0
    for nodes in members:
        for place, node in enumerate(nodes):
            columns[node] = column + place // _TALLEST
        column += max(1, math.ceil(len(nodes) / _TALLEST))
    return columns


class _Lanes:
    """Nodes, and the lanes of edges that pass a column: both are items, numbered from 0 and from `count` on.

    Attributes:
        column: Of each item.
        left: The items of the column before that an item is joined with.
        right: Those of the column after.
        members: The items of each column, from top to bottom.
        far: Edges without lanes.
    """

    def __init__(self, count: int, edges: Sequence[tuple[int, int]], columns: list[int]) -> None:
        self.count = count
        self.column = list(columns)
        self.left: list[list[int]] = [[] for _ in range(count)]
        self.right: list[list[int]] = [[] for _ in range(count)]
        self.far: list[tuple[int, int]] = []
        readers: list[list[int]] = [[] for _ in range(count)]
        longest = _longest(count, edges, columns)
        for writer, reader in edges:
            if 1 <= columns[reader] - columns[writer] <= longest:
                readers[writer].append(reader)
            else:
                self.far.append((writer, reader))
        for writer, near in enumerate(readers):
            self._add(writer, near)
        self.members: list[list[int]] = [[] for _ in range(max(self.column, default=-1) + 1)]
        for item, column in enumerate(self.column):
            self.members[column].append(item)

    def _add(self, writer: int, readers: Sequence[int]) -> None:
        start = self.column[writer]
        way = [writer]  # the item that passes each column, from the writer's on
        for reader in sorted(readers, key=self.column.__getitem__):
            while start + len(way) < self.column[reader]:
                way.append(len(self.column))
                self.column.append(start + len(way) - 1)
                self.left.append([])
                self.right.append([])
                self._join(way[-2], way[-1])
            self._join(way[self.column[reader] - start - 1], reader)

    def _join(self, first: int, second: int) -> None:
        self.right[first].append(second)
        self.left[second].append(first)

    def size(self, item: int) -> float:
        """How high an item is, in lanes."""
        return 1.0 if item < self.count else _THIN


def _longest(count: int, edges: Sequence[tuple[int, int]], columns: Sequence[int]) -> int:
    for longest in _LONGEST:
        passed = [0] * count
        for writer, reader in edges:
            span = columns[reader] - columns[writer]
            if passed[writer] < span <= longest:
                passed[writer] = span
        if sum(passed) <= _MOST_LANES * (count + len(edges)):
            break
    return longest


def _order(lanes: _Lanes) -> None:
    """Sorts columns by the mean place of their neighbours, alternating left and right; keeps the best order found."""
    best, fewest = [list(column) for column in lanes.members], _crossings(lanes)
    place = [0.0] * len(lanes.column)
    for column in lanes.members:
        _note_places(column, place)
    for sweep in range(_SWEEPS):
        if not fewest:
            break
        near = lanes.right if sweep % 2 else lanes.left
        for column in reversed(lanes.members) if sweep % 2 else lanes.members:
            wanted = {item: _mean([place[other] for other in near[item]], place[item]) for item in column}
            column.sort(key=wanted.__getitem__)
            _note_places(column, place)
        count = _crossings(lanes)
        if count < fewest:
            best, fewest = [list(column) for column in lanes.members], count
    lanes.members = best


def _note_places(column: Sequence[int], place: list[float]) -> None:
    """Places are relative to the middle, since columns differ in size."""
    for k, item in enumerate(column):
        place[item] = k - (len(column) - 1) / 2


def _mean(values: Sequence[float], otherwise: float) -> float:
    return math.fsum(values) / len(values) if values else otherwise


def _crossings(lanes: _Lanes) -> int:
    """Pairs of edges between neighbouring columns that cross."""
    place = [0] * len(lanes.column)
    for column in lanes.members:
        for k, item in enumerate(column):
            place[item] = k
    total = 0
    for column in lanes.members:
        seen: list[int] = []
        for item in column:
            ends = sorted(place[other] for other in lanes.right[item])
            total += sum(len(seen) - bisect_right(seen, end) for end in ends)
            for end in ends:
                insort(seen, end)
    return total


def _heights(lanes: _Lanes) -> list[float]:
    """The centre of each item, in lanes: close to its neighbours, in order and without overlaps."""
    y = [0.0] * len(lanes.column)
    for column in lanes.members:
        _spread(lanes, column, [0.0] * len(column), y)
    for sweep in range(_SWEEPS):
        near = lanes.right if sweep % 2 else lanes.left
        for column in reversed(lanes.members) if sweep % 2 else lanes.members:
            _spread(lanes, column, [_mean([y[other] for other in near[item]], y[item]) for item in column], y)
    return y


def _spread(lanes: _Lanes, column: Sequence[int], wanted: Sequence[float], y: list[float]) -> None:
    """The places nearest to the wanted ones (least squares) that keep order and room."""
    offset, offsets = 0.0, []
    for k, item in enumerate(column):
        if k:
            offset += (lanes.size(column[k - 1]) + lanes.size(item)) / 2
        offsets.append(offset)
    blocks: list[tuple[float, int]] = []  # mean and number of neighbours that touch
    for target, shift in zip(wanted, offsets, strict=True):
        blocks.append((target - shift, 1))
        while len(blocks) > 1 and blocks[-2][0] > blocks[-1][0]:
            (second, size_b), (first, size_a) = blocks.pop(), blocks.pop()
            blocks.append(((first * size_a + second * size_b) / (size_a + size_b), size_a + size_b))
    means = (mean for mean, size in blocks for _ in range(size))
    for item, mean, shift in zip(column, means, offsets, strict=True):
        y[item] = mean + shift


def _fold(lanes: _Lanes, heights: Sequence[float]) -> NetworkLayout:
    """Cuts the columns into rows of equal length, as many as bring the picture close to its target shape."""
    layout = NetworkLayout()
    if not lanes.members:
        return layout
    spans = [_span(lanes, column, heights) for column in lanes.members]
    per_row = min(
        {math.ceil(len(spans) / rows) for rows in range(1, _MOST_ROWS + 1)},
        key=lambda length: (abs(math.log(_shape(spans, length) / _ASPECT)), length),
    )
    tops: list[float] = []  # of each row, so that lane 0 of its columns is at this height
    bottom = float(_MARGIN)
    for low, high in _rows(spans, per_row):
        tops.append(bottom - low * LANE)
        bottom += (high - low) * LANE + _ROW_GAP
    layout.width = min(per_row, len(spans)) * COLUMN - (COLUMN - NODE_WIDTH) + 2 * _MARGIN
    layout.height = round(bottom - _ROW_GAP + _MARGIN)
    places = [
        (_MARGIN + column % per_row * COLUMN, round(tops[column // per_row] + heights[item] * LANE))
        for item, column in enumerate(lanes.column)
    ]
    layout.x = [x for x, _ in places[: lanes.count]]
    layout.y = [y - NODE_HEIGHT // 2 for _, y in places[: lanes.count]]
    layout.near = "".join(_near_paths(lanes, places, per_row, layout.width))
    layout.far = "".join(_far_path(places[writer], places[reader]) for writer, reader in lanes.far)
    return layout


def _span(lanes: _Lanes, column: Sequence[int], heights: Sequence[float]) -> tuple[float, float]:
    return heights[column[0]] - lanes.size(column[0]) / 2, heights[column[-1]] + lanes.size(column[-1]) / 2


def _rows(spans: Sequence[tuple[float, float]], per_row: int) -> Iterator[tuple[float, float]]:
    """The lowest and the highest place in each row."""
    for start in range(0, len(spans), per_row):
        row = spans[start : start + per_row]
        yield min(low for low, _ in row), max(high for _, high in row)


def _shape(spans: Sequence[tuple[float, float]], per_row: int) -> float:
    height = math.fsum((high - low) * LANE + _ROW_GAP for low, high in _rows(spans, per_row))
    return min(per_row, len(spans)) * COLUMN / height


def _near_paths(lanes: _Lanes, places: Sequence[tuple[int, int]], per_row: int, width: int) -> Iterator[str]:
    """Lines between neighbouring columns; at the end of a row they continue at the left of the next one."""
    for item, right in enumerate(lanes.right):
        if not right:
            continue
        x, y = places[item]
        # A lane takes the width of a column, so that its line continues without a gap.
        start = x + NODE_WIDTH
        passing = f"M{x} {y}h{NODE_WIDTH}" if item >= lanes.count else ""
        yield passing
        if lanes.column[item] % per_row == per_row - 1:
            yield f"M{start} {y}H{width}"
            for y2 in {places[other][1] for other in right}:
                yield f"M0 {y2}H{_MARGIN}"
            continue
        for other in right:
            yield _line(start, y, *places[other])


def _line(x: int, y: int, x2: int, y2: int) -> str:
    middle = (x + x2) // 2
    return f"M{x} {y}H{x2}" if y == y2 else f"M{x} {y}C{middle} {y} {middle} {y2} {x2} {y2}"


def _far_path(start: tuple[int, int], end: tuple[int, int]) -> str:
    """A bow from the right of one node to the left of another, in any direction."""
    (x, y), (x2, y2) = start, end
    x += NODE_WIDTH
    reach = max(COLUMN, abs(x2 - x) // 4)
    lift = LANE * 2 if abs(y2 - y) < LANE else 0
    return f"M{x} {y}C{x + reach} {y - lift} {x2 - reach} {y2 - lift} {x2} {y2}"
