"""Described nodes as cards of a picture."""

from __future__ import annotations

from collections.abc import Callable, Collection, Mapping, Sequence

from onnxgraft.drawing.node_cards import Card, State, draw_cards
from onnxgraft.drawing.pattern_pair import INPUT_NAMES
from onnxgraft.report.page import table, text
from onnxgraft.report.records import NodeText

MOST_NODES = 30
_MOST_AROUND = 12
_MOST_ATTRIBUTES = 6
_MOST_LISTED = 200
_READABLE = 0.75  # of its natural size; a larger picture scrolls


def figure(
    caption: str,
    nodes: Sequence[NodeText],
    neighbours: Sequence[NodeText],
    shapes: Mapping[str, str],
    is_constant: Callable[[str, int], bool],
    states: Mapping[NodeKey, State],
) -> str:
    """A drawing with its caption; of a large set the first nodes, and the total.

    Args:
        caption: Plain text.
        nodes: The nodes to show.
        neighbours: Nodes around them.
        shapes: Texts by tensor.
        is_constant: Whether a tensor at that input position is written on the node instead of drawn as a line.
        states: The fate of a node; `kept` if it is not in it.
    """
    shown = nodes[:MOST_NODES]
    own = {name for node in nodes for name in node.outputs}
    around = [node for node in neighbours if own.isdisjoint(node.outputs)]
    around = around[: max(2, min(_MOST_AROUND, MOST_NODES - len(shown)))]
    cards = [_card(node, shapes, is_constant, states.get(key(node), "kept")) for node in shown]
    cards += [Card(n.op_type, n.name, tuple(filter(None, n.inputs)), n.outputs, "around") for n in around]
    left_out = len(nodes) - len(shown)
    note = f" (the first {MOST_NODES} of {len(nodes)} nodes)" if left_out else f" ({_count(len(nodes))})"
    drawing, width = draw_cards(cards, shapes, f"{caption}: {', '.join(node.op_type for node in shown)}")
    content = drawing or '<p class="empty">no node</p>'
    return (
        f'<figure style="--least:{_READABLE * width:.0f}px"><figcaption>{text(caption + note)}</figcaption>'
        f'<div class="picture" tabindex="0" role="group" aria-label="{text(caption)}">{content}</div></figure>'
    )


NodeKey = tuple[str, str, tuple[str, ...], tuple[str, ...], tuple[tuple[str, str], ...]]


def key(node: NodeText) -> NodeKey:
    """The key under which two node texts are the same except for their position in the list."""
    return node.op_type, node.name, node.inputs, node.outputs, tuple(sorted(node.attributes.items()))


def _count(number: int) -> str:
    return "1 node" if number == 1 else f"{number} nodes"


def _card(node: NodeText, shapes: Mapping[str, str], is_constant: Callable[[str, int], bool], state: State) -> Card:
    labels = INPUT_NAMES.get(node.op_type, ())
    lines, rows = [], []
    for position, name in enumerate(node.inputs):
        if not name:
            continue
        if is_constant(name, position):
            label = labels[position] if position < len(labels) else f"in {position}"
            rows.append((label, shapes.get(name, name), f"{name}  {shapes.get(name, '')}".strip()))
        else:
            lines.append(name)
    attributes = list(node.attributes.items())
    rows += [(name, value, f"{name} = {value}") for name, value in attributes[:_MOST_ATTRIBUTES]]
    if len(attributes) > _MOST_ATTRIBUTES:
        rest = attributes[_MOST_ATTRIBUTES:]
        rows.append(("", f"… {len(rest)} more", "\n".join(f"{name} = {value}" for name, value in rest)))
    return Card(node.op_type, node.name, tuple(lines), node.outputs, state, tuple(rows), node.index)


def listing(sides: Sequence[tuple[str, Sequence[NodeText]]], shapes: Mapping[str, Mapping[str, str]]) -> str:
    """All names in full, in a collapsed part; `shapes` by side and tensor."""

    def tensors(names: Collection[str], side: str) -> str:
        known = shapes.get(side, {})
        return "<br>".join(text(f"{name or '(omitted)'} {known.get(name, '')}") for name in names)

    rows = [
        (
            text(side),
            text("" if node.index is None else node.index),
            text(f"{node.domain}.{node.op_type}" if node.domain else node.op_type),
            text(node.name),
            tensors(node.inputs, side),
            tensors(node.outputs, side),
            "<br>".join(text(f"{name} = {value}") for name, value in node.attributes.items()),
        )
        for side, nodes in sides
        for node in nodes
    ]
    more = f'<p class="left-out">… and {len(rows) - _MOST_LISTED} more nodes</p>' if len(rows) > _MOST_LISTED else ""
    headings = ("", "#", "Operator", "Name", "Inputs", "Outputs", "Attributes")
    content = table(headings, rows[:_MOST_LISTED], [1])
    return f'<details class="names"><summary>Names in full</summary>{content}{more}</details>'


LEGEND = (
    '<ul class="legend"><li class="removed">removed</li><li class="changed">changed</li><li class="added">added</li>'
    '<li class="kept">stays</li><li class="around">around it</li></ul>'
)
