"""Lines, text widths and escaping that all drawings share."""

from __future__ import annotations

from html import escape
from itertools import pairwise

from onnxgraft.drawing.layout import Edge, Layout

_ARROW = 6.0
# Control characters are shown as the pictures that Unicode has for them: a browser would drop or misread them.
_PICTURES = {code: 0x2400 + code for code in range(32)} | {127: 0x2421}


def edge_paths(layout: Layout, edge: Edge) -> tuple[str, str]:
    """SVG path data: a smooth line from the bottom of one box through its spots to an input of the other; its head."""
    start = layout.items[edge.start]
    end = layout.items[edge.end]
    points = [(start.x, start.y + start.height / 2)]
    for name in edge.via:
        spot = layout.items[name]
        half = max(layout.items[other].height for other in layout.layers[spot.layer]) / 2
        points += [(spot.x, spot.y - half), (spot.x, spot.y + half)]
    points.append((layout.entry(edge), end.y - end.height / 2 - _ARROW))
    path = f"M{points[0][0]:.1f} {points[0][1]:.1f}"
    for (x1, y1), (x2, y2) in pairwise(points):
        bend = (y2 - y1) / 2
        path += f" C{x1:.1f} {y1 + bend:.1f} {x2:.1f} {y2 - bend:.1f} {x2:.1f} {y2:.1f}"
    x, y = points[-1]
    return path, f"M{x - 4:.1f} {y:.1f} h8 l-4 {_ARROW:.1f} z"


def text_width(text: str, size: float) -> float:
    """An upper bound of the width in sans-serif fonts."""
    return 0.58 * size * len(text)


def markup(value: str) -> str:
    """A text of a model, with any characters, as text of SVG and HTML, also safe in double-quoted attributes."""
    return escape(value.translate(_PICTURES).encode("utf-8", "replace").decode())
