"""Places the boxes and lines of a small graph on a grid of characters.

The order in layers comes from the layout that all drawings share. Here columns become whole numbers, and every layer
gets rows below it for the lines that go sideways.
"""

from __future__ import annotations

from collections.abc import Mapping, Sequence
from dataclasses import dataclass
from itertools import pairwise

from onnxgraft.drawing.layout import GAP_X, Edge, Layout, place

_UNIT = GAP_X / 2  # of the shared layout, per column


@dataclass
class Box:
    """Left column, first row and size."""

    width: int
    height: int
    x: int = 0
    y: int = 0

    @property
    def right(self) -> int:
        """The last column."""
        return self.x + self.width - 1

    def entry(self, port: int, ports: int) -> int:
        """The column where input `port` enters."""
        return self.x + round((port + 1) * (self.width - 1) / (ports + 1))


@dataclass(frozen=True)
class Step:
    """A line of a tensor through the gap below a layer, from a column to a column."""

    tensor: str
    start: int
    end: int


class TextLayout:
    """Boxes by name, and for every gap its steps and the row of each tensor that goes sideways in it."""

    def __init__(self, sizes: Mapping[str, tuple[int, int]], reads: Mapping[str, Sequence[str]]) -> None:
        self._layout: Layout = place({n: (w * _UNIT, float(h)) for n, (w, h) in sizes.items()}, reads)
        self.layers = self._layout.layers
        self.boxes = {name: Box(*sizes.get(name, (1, 0))) for name in self._layout.items}
        self._ways = [(edge, (edge.start, *edge.via, edge.end)) for edge in self._layout.edges]
        self._set_columns()
        self.gaps = [self._steps(k) for k in range(len(self.layers) - 1)]
        self.tracks = [_tracks(steps) for steps in self.gaps]
        self._set_rows()
        self.width = 1 + max(box.right for box in self.boxes.values())

    def is_spot(self, name: str) -> bool:
        """Whether it is only where a line passes a layer."""
        return self.boxes[name].height == 0

    def bottom(self, layer: int) -> int:
        """The row below the boxes of a layer."""
        return max(self.boxes[name].y + self.boxes[name].height for name in self.layers[layer])

    def top(self, layer: int) -> int:
        """The first row of a layer."""
        return self.boxes[self.layers[layer][0]].y

    def _set_columns(self) -> None:
        for layer in self.layers:
            least = int(self.is_spot(layer[0]))  # not left of the middle of a tensor's label
            for name in layer:
                box, item = self.boxes[name], self._layout.items[name]
                box.x = max(least, round(item.x / _UNIT - box.width / 2))
                least = box.right + 2
        # Spots and outside tensors go straight above their target, if there is room.
        for edge, way in self._ways:
            for upper, lower in reversed(list(pairwise(way))):
                if self.boxes[upper].height <= 1:
                    self._move(upper, self._end(edge, lower) - self.boxes[upper].width // 2)
            if self.boxes[edge.end].height == 1:
                self._move(edge.end, self._start(way[-2]) - self.boxes[edge.end].width // 2)

    def _move(self, name: str, x: int) -> None:
        layer = next(layer for layer in self.layers if name in layer)
        place_in = layer.index(name)
        box = self.boxes[name]
        if place_in and x < self.boxes[layer[place_in - 1]].right + 2:
            return
        if place_in + 1 < len(layer) and x + box.width + 1 > self.boxes[layer[place_in + 1]].x:
            return
        box.x = max(0, x)

    def _start(self, name: str) -> int:
        return self.boxes[name].x + self.boxes[name].width // 2

    def _end(self, edge: Edge, name: str) -> int:
        return self.boxes[name].entry(edge.port, edge.ports) if name == edge.end else self.boxes[name].x

    def _steps(self, layer: int) -> list[Step]:
        """A line leaves its box straight above its target, if it is the only one that leaves there."""
        leaving: dict[str, list[int]] = {}
        found = []
        for edge, way in self._ways:
            for upper, lower in pairwise(way):
                if upper in self.layers[layer]:
                    leaving.setdefault(upper, []).append(self._end(edge, lower))
                    found.append((edge.start, upper, self._end(edge, lower)))
        steps = []
        for tensor, upper, end in found:
            box, ends = self.boxes[upper], leaving[upper]
            straight = not self.is_spot(upper) and box.height > 1 and box.x < ends[0] < box.right
            steps.append(Step(tensor, ends[0] if straight and len(set(ends)) == 1 else self._start(upper), end))
        return steps

    def _set_rows(self) -> None:
        y = 0
        for number, layer in enumerate(self.layers):
            for name in layer:
                self.boxes[name].y = y
            if number < len(self.gaps):
                y = self.bottom(number) + 1 + max(self.tracks[number].values(), default=0)


def _tracks(steps: Sequence[Step]) -> dict[str, int]:
    """Rows from 1 for the tensors that go sideways; lines that leave at a column come above lines that arrive there."""
    spans: dict[str, tuple[int, int]] = {}
    for step in steps:
        if step.start != step.end:
            low, high = spans.get(step.tensor, (step.start, step.start))
            spans[step.tensor] = (min(low, step.start, step.end), max(high, step.start, step.end))
    above: dict[str, set[str]] = {tensor: set() for tensor in spans}
    for one in steps:
        for other in steps:
            if one.tensor != other.tensor and one.start == other.end and {one.tensor, other.tensor} <= spans.keys():
                above[other.tensor].add(one.tensor)
    rows: dict[str, int] = {}
    todo = sorted(spans, key=lambda tensor: spans[tensor])
    while todo:
        tensor = next((t for t in todo if above[t] <= rows.keys()), todo[0])
        todo.remove(tensor)
        row = 1 + max((rows[other] for other in above[tensor] if other in rows), default=0)
        left, right = spans[tensor]
        while any(rows[other] == row and spans[other][0] <= right and left <= spans[other][1] for other in rows):
            row += 1
        rows[tensor] = row
    return rows
