"""Draws a (pattern, replacement) pair for the terminal, with the characters for boxes and lines.

Nodes are boxes, and their frames show what becomes of them. The ids of tensors are next to the lines; initializers are
listed in the box that reads them. The strings of the lists are printed above, since only they give every input's
position.
"""

from __future__ import annotations

from collections.abc import Sequence

from onnxgraft.drawing.pattern_pair import Constant, Graph, Node, State, read_pair
from onnxgraft.drawing.text_canvas import DOWN, UP, Canvas
from onnxgraft.drawing.text_layout import Box, TextLayout

_WIDEST = 100
_BETWEEN = 6
# Corners, horizontal, vertical.
_FRAMES = {
    State.KEPT: "┌┐└┘─│",
    State.COPIED: "╔╗╚╝═║",
    State.NEW: "┏┓┗┛━┃",
    State.REMOVED: "┌┐└┘╌╎",
}
_LEGEND = {
    State.KEPT: "┌─┐ stays as it is",
    State.COPIED: "╔═╗ copied with other links",
    State.NEW: "┏━┓ new",
    State.REMOVED: "┌╌┐ removed",
}
_MARKS = {State.NEW: "+", State.REMOVED: "-"}
_MARK_LEGEND = {State.NEW: "+ new initializer", State.REMOVED: "- initializer that these nodes no longer read"}


def draw_pair(pattern: Sequence[str], replacement: Sequence[str]) -> str:
    """The subgraph before and after, with a legend; at most 100 columns wide for the patterns of the catalogue.

    Args:
        pattern: The list of nodes to find.
        replacement: The list that belongs to it.

    Raises:
        ValueError: The lists do not follow the notation.
    """
    sides = read_pair(pattern, replacement)
    lists = (("before", pattern), ("after", replacement))
    before, after = (_drawn(graph, *texts) for graph, texts in zip(sides, lists, strict=True))
    width = max(map(len, before))
    if width + _BETWEEN + max(map(len, after)) <= _WIDEST:
        height = max(len(before), len(after))
        rows = [
            (left.ljust(width + _BETWEEN) + right).rstrip()
            for left, right in zip(_filled(before, height), _filled(after, height), strict=True)
        ]
    else:
        rows = [*before, "", *after]
    return "\n".join([*rows, "", *_legend(sides)])


def _filled(rows: list[str], height: int) -> list[str]:
    return rows + [""] * (height - len(rows))


def _drawn(graph: Graph, title: str, strings: Sequence[str]) -> list[str]:
    """One side: its list, then the drawing, with narrow boxes if wide ones do not fit."""
    if not graph.nodes:
        return [title, "", "(nothing)"]
    if _has_cycle(graph):
        return [title, *(f"  {text}" for text in strings), "", "(goes round in a circle)"]
    layout = _lay_out(graph, narrow=False)
    narrow = layout.width > _WIDEST
    if narrow:
        layout = _lay_out(graph, narrow=True)
    return [title, *(f"  {text}" for text in strings), "", *_paint(graph, layout, narrow=narrow)]


def _has_cycle(graph: Graph) -> bool:
    todo = list(graph.nodes)
    while todo:
        pending = {node.output for node in todo}
        rest = [node for node in todo if pending & set(node.inputs)]
        if len(rest) == len(todo):
            return True
        todo = rest
    return False


def _lay_out(graph: Graph, *, narrow: bool) -> TextLayout:
    """Items are named as in the other pictures: "<id" from outside, ">id" a result, otherwise the node's output."""
    sizes = {f"<{tensor}": (len(tensor) + 2, 1) for tensor in graph.sources}
    written = {node.output for node in graph.nodes}
    reads = {}
    for node in graph.nodes:
        lines = _lines(node, narrow=narrow)
        width = max(max(map(len, lines)) + 4, 2 * len(node.inputs) + 3)
        sizes[node.output] = (width, len(lines) + 2)
        reads[node.output] = [tensor if tensor in written else f"<{tensor}" for tensor in node.inputs]
    for tensor in graph.results:
        sizes[f">{tensor}"] = (len(tensor) + 2, 1)
        reads[f">{tensor}"] = [tensor]
    return TextLayout(sizes, reads)


def _lines(node: Node, *, narrow: bool) -> list[str]:
    """The text in a box: number and operator, then the initializers."""
    number = "" if node.number is None else f"#{node.number}"
    head = [node.op, *filter(None, [number])] if narrow else [f"{number} {node.op}".strip()]
    constants = [_constant(constant) for constant in node.constants]
    rows = [", ".join(constants[k : k + 2]) for k in range(0, len(constants), 2)]
    return [*head, *rows]


def _constant(constant: Constant) -> str:
    return " ".join(filter(None, [constant.name, constant.id])) + _MARKS.get(constant.state, "")


def _paint(graph: Graph, layout: TextLayout, *, narrow: bool) -> list[str]:
    canvas = Canvas()
    nodes = {node.output: node for node in graph.nodes}
    for name, box in layout.boxes.items():
        if name in nodes:
            _paint_box(canvas, box, _lines(nodes[name], narrow=narrow), _FRAMES[nodes[name].state])
        elif name[0] in "<>" and not layout.is_spot(name):
            canvas.write(box.x, box.y, f"({name[1:]})")
    inner = {link for node in graph.nodes for link in node.inputs} & nodes.keys()
    for layer, steps in enumerate(layout.gaps):
        top, below = layout.bottom(layer), layout.top(layer + 1)
        for step in steps:
            track = layout.tracks[layer].get(step.tensor, 0) + top
            if step.start == step.end:
                canvas.vertical(step.tensor, step.start, top, below - 1)
            else:
                canvas.vertical(step.tensor, step.start, top, track)
                canvas.horizontal(step.tensor, min(step.start, step.end), max(step.start, step.end), track)
                canvas.vertical(step.tensor, step.end, track, below - 1)
            canvas.stub(step.tensor, step.start, top, UP)
            canvas.stub(step.tensor, step.end, below - 1, DOWN)
        _pass_layer(canvas, layout, layer)
        _finish_gap(canvas, layout, layer, inner)
    return canvas.rows()


def _paint_box(canvas: Canvas, box: Box, lines: list[str], frame: str) -> None:
    inside = box.width - 2
    canvas.write(box.x, box.y, frame[0] + frame[4] * inside + frame[1])
    for k, line in enumerate(lines, 1):
        canvas.write(box.x, box.y + k, frame[5] + line.center(inside) + frame[5])
    canvas.write(box.x, box.y + box.height - 1, frame[2] + frame[4] * inside + frame[3])


def _pass_layer(canvas: Canvas, layout: TextLayout, layer: int) -> None:
    """Continues lines to the gap below: past the layer at their spots, and under boxes that are lower than others."""
    top, bottom = layout.top(layer), layout.bottom(layer)
    for step in layout.gaps[layer]:
        for name in layout.layers[layer]:
            box = layout.boxes[name]
            if box.x <= step.start <= box.right:
                first = top if layout.is_spot(name) else box.y + box.height
                canvas.vertical(step.tensor, step.start, first, bottom)
                canvas.stub(step.tensor, step.start, first, UP)


def _finish_gap(canvas: Canvas, layout: TextLayout, layer: int, inner: set[str]) -> None:
    """Heads of arrows, and ids next to the lines that come from a node and go to another."""
    for step in layout.gaps[layer]:
        for name in layout.layers[layer + 1]:
            box = layout.boxes[name]
            if box.x <= step.end <= box.right and box.height > 1:
                canvas.write(step.end, box.y, "▼")
    for step in {step.tensor: step for step in layout.gaps[layer]}.values():
        starts = [layout.boxes[name] for name in layout.layers[layer] if name == step.tensor]
        if step.tensor not in inner or not starts or not starts[0].x <= step.start <= starts[0].right:
            continue
        y = starts[0].y + starts[0].height
        places = (step.start + 2, step.start - 1 - len(step.tensor))
        for x in places:
            if canvas.is_free(x, y, len(step.tensor)):
                canvas.write(x, y, step.tensor)
                break


def _legend(sides: Sequence[Graph]) -> list[str]:
    states = {node.state for graph in sides for node in graph.nodes}
    marks = {constant.state for graph in sides for node in graph.nodes for constant in node.constants}
    texts = [text for state, text in _LEGEND.items() if state in states]
    texts += [text for state, text in _MARK_LEGEND.items() if state in marks]
    if any(not constant.id for graph in sides for node in graph.nodes for constant in node.constants):
        texts.append("any: all other inputs are initializers or omitted")
    rows = [""]
    for text in texts:
        if len(rows[-1]) + len(text) + 3 > _WIDEST:
            rows.append("")
        rows[-1] += ("   " if rows[-1] else "") + text
    return rows
