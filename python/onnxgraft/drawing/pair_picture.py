"""Draws a (pattern, replacement) pair as SVG: before on the left, after on the right.

Only shapes, text and inline attributes, so that every viewer shows the same; with its own background for dark pages.
"""

from __future__ import annotations

import math
from collections.abc import Iterator
from html import escape

from onnxgraft.drawing.geometry import edge_paths, text_width
from onnxgraft.drawing.layout import Edge, Layout, place
from onnxgraft.drawing.pattern_pair import Constant, Graph, Node, State

_MARGIN, _TITLE, _BETWEEN, _LEGEND = 20.0, 34.0, 84.0, 40.0
_HEAD, _CHIP, _PORT = 32.0, 19.0, 26.0
_CHIPS_IN_ROW = 2
_SANS = 'font-family="Helvetica, Arial, sans-serif"'
_MONO = 'font-family="Menlo, Consolas, monospace"'
_INK, _GREY = "#1f2937", "#6b7280"
# Fill, stroke, dashes. Removed ones are dashed as well as red, so that colour is not the only sign.
_STYLE = {
    State.KEPT: ("#f3f4f6", "#9ca3af", ""),
    State.COPIED: ("#dbeafe", "#3b82f6", ""),
    State.REMOVED: ("#fee2e2", "#dc2626", ' stroke-dasharray="5 3"'),
    State.NEW: ("#d1fae5", "#059669", ""),
}


def draw(title: str, before: Graph, after: Graph) -> str:
    """The whole picture."""
    sides = [(graph, lay_out(graph)) for graph in (before, after)]
    height = max(layout.height for _, layout in sides)
    bottom = _MARGIN + _TITLE + height
    left = _MARGIN + max(0.0, (60.0 - sides[0][1].width) / 2)
    right = left + sides[0][1].width + _BETWEEN
    states = [s for s in State if any(s in _states(graph) for graph, _ in sides)]
    width = max(right + max(sides[1][1].width, 60.0) + _MARGIN, 2 * _MARGIN + math.fsum(map(_legend_width, states)))
    full = bottom + _LEGEND + 8
    parts = [
        f'<svg xmlns="http://www.w3.org/2000/svg" width="{width:.0f}" height="{full:.0f}" '
        f'viewBox="0 0 {width:.0f} {full:.0f}" role="img">',
        f"<title>{escape(title)}</title>",
        f'<rect width="{width:.0f}" height="{full:.0f}" rx="8" fill="#ffffff"/>',
    ]
    for (graph, layout), x, name in zip(sides, (left, right), ("before", "after"), strict=True):
        parts.append(_text(x + layout.width / 2, _MARGIN + 8, name, _SANS, _GREY, 14))
        y = _MARGIN + _TITLE + (height - layout.height) / 2
        parts.append(f'<g transform="translate({x:.1f} {y:.1f})">')
        parts += _side(graph, layout)
        parts.append("</g>")
    parts.append(_big_arrow(right - _BETWEEN / 2, _MARGIN + _TITLE + height / 2))
    parts += _legend(states, bottom + _LEGEND - 12)
    return "\n".join([*parts, "</svg>"]) + "\n"


def lay_out(graph: Graph) -> Layout:
    """Names of items: "<id" a tensor from outside, ">id" a result, otherwise the tensor that the node writes."""
    sizes = {f"<{tensor}": (_PORT, _PORT) for tensor in graph.sources}
    written = {node.output: node.output for node in graph.nodes}
    reads = {}
    for node in graph.nodes:
        sizes[node.output] = _size(node)
        reads[node.output] = [written.get(tensor, f"<{tensor}") for tensor in node.inputs]
    for tensor in graph.results:
        sizes[f">{tensor}"] = (_PORT, _PORT)
        reads[f">{tensor}"] = [tensor]
    return place(sizes, reads)


def _size(node: Node) -> tuple[float, float]:
    rows = _rows(node)
    chips = max((math.fsum(_chip_width(chip) + 5 for chip in row) for row in rows), default=0.0)
    return max(text_width(node.op, 14) + 60, chips + 11), _HEAD + len(rows) * (_CHIP + 4) + (3 if rows else 0)


def _rows(node: Node) -> list[tuple[Constant, ...]]:
    return [node.constants[k : k + _CHIPS_IN_ROW] for k in range(0, len(node.constants), _CHIPS_IN_ROW)]


def _side(graph: Graph, layout: Layout) -> Iterator[str]:
    yield from (_edge(layout, edge) for edge in layout.edges)
    results = set(graph.results)
    for node in graph.nodes:
        item = layout.items[node.output]
        yield from _box(node, item.x, item.y - item.height / 2, item.width, item.height)
        if node.output not in results:
            yield _label(layout, node.output)
    for name, item in layout.items.items():
        if name[0] in "<>" and "|" not in name:
            yield (
                f'<circle cx="{item.x:.1f}" cy="{item.y:.1f}" r="{_PORT / 2:.1f}" fill="#ffffff" '
                f'stroke="{_GREY}" stroke-width="1.2"/>'
            )
            yield _text(item.x, item.y, name[1:], _MONO, _INK, 11)


def _box(node: Node, x: float, y: float, width: float, height: float) -> Iterator[str]:
    fill, stroke, dashes = _STYLE[node.state]
    left = x - width / 2
    yield (
        f'<rect x="{left:.1f}" y="{y:.1f}" width="{width:.1f}" height="{height:.1f}" rx="6" '
        f'fill="{fill}" stroke="{stroke}" stroke-width="1.5"{dashes}/>'
    )
    if node.number is not None:
        yield _text(left + 7, y + 12, f"#{node.number}", _MONO, stroke, 10, "start")
    yield _text(x, y + _HEAD / 2 + 1, node.op, _SANS, _INK, 14)
    for row, chips in enumerate(_rows(node)):
        chip_x = x - (math.fsum(_chip_width(chip) + 5 for chip in chips) - 5) / 2
        for chip in chips:
            yield from _draw_chip(chip, chip_x, y + _HEAD + row * (_CHIP + 4) - 3)
            chip_x += _chip_width(chip) + 5


def _draw_chip(chip: Constant, x: float, y: float) -> Iterator[str]:
    _, stroke, dashes = _STYLE[chip.state]
    width = _chip_width(chip)
    yield (
        f'<rect x="{x:.1f}" y="{y:.1f}" width="{width:.1f}" height="{_CHIP:.1f}" rx="{_CHIP / 2:.1f}" '
        f'fill="#ffffff" stroke="{stroke}"{dashes.replace("5 3", "3 2")}/>'
    )
    yield _text(x + width / 2, y + _CHIP / 2, f"{chip.name} {chip.id}".strip(), _MONO, _INK, 10.5)


def _chip_width(chip: Constant) -> float:
    return 6.6 * len(f"{chip.name} {chip.id}".strip()) + 14


def _edge(layout: Layout, edge: Edge) -> str:
    """A smooth line from the bottom of one box through its spots to an input of the other."""
    path, head = edge_paths(layout, edge)
    return f'<path d="{path}" fill="none" stroke="{_GREY}" stroke-width="1.3"/><path d="{head}" fill="{_GREY}"/>'


def _big_arrow(x: float, y: float) -> str:
    return f'<path d="M{x - 20:.1f} {y - 4:.1f} h24 v-7 l16 11 l-16 11 v-7 h-24 z" fill="#9ca3af"/>'


def _states(graph: Graph) -> set[State]:
    return {node.state for node in graph.nodes} | {c.state for node in graph.nodes for c in node.constants}


def _legend_width(state: State) -> float:
    return 20 + 0.9 * text_width(state.value, 12) + 16


def _legend(states: list[State], y: float) -> Iterator[str]:
    x = _MARGIN
    for state in states:
        fill, stroke, dashes = _STYLE[state]
        yield (
            f'<rect x="{x:.1f}" y="{y - 7:.1f}" width="14" height="14" rx="3" fill="{fill}" '
            f'stroke="{stroke}"{dashes.replace("5 3", "3 2")}/>'
        )
        yield _text(x + 20, y, state.value, _SANS, _GREY, 12, "start")
        x += _legend_width(state)


def _label(layout: Layout, tensor: str) -> str:
    """A tensor's id below the box that writes it, on the side to which no edge turns."""
    item = layout.items[tensor]
    edges = [edge for edge in layout.edges if edge.start == tensor]
    turns = [layout.items[edge.via[0]].x if edge.via else layout.entry(edge) for edge in edges]
    left, right = any(x < item.x - 1 for x in turns), any(x > item.x + 1 for x in turns)
    y = item.y + item.height / 2 + 10
    if left and right and len(turns) % 2 == 0:
        return _text(item.x, y + 12, tensor, _MONO, _GREY, 10.5)
    x, anchor = (item.x - 6, "end") if right else (item.x + 6, "start")
    return _text(x, y, tensor, _MONO, _GREY, 10.5, anchor)


def _text(x: float, y: float, text: str, font: str, colour: str, size: float, anchor: str = "middle") -> str:
    return (
        f'<text x="{x:.1f}" y="{y + size * 0.35:.1f}" text-anchor="{anchor}" {font} font-size="{size:g}" '
        f'fill="{colour}">{escape(text)}</text>'
    )
