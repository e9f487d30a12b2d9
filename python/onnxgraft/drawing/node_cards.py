"""Draws nodes of real models as cards that are connected by their tensors, as SVG for a page.

Colours come from the page by class (`kept`, `changed`, `removed`, `added`, `around`), so that they follow its theme. A
card without a producer in the picture is connected to a pill with the tensor's name; so is one without a reader.
"""

from __future__ import annotations

import unicodedata
from collections.abc import Iterator, Mapping, Sequence
from dataclasses import dataclass
from typing import Literal

from onnxgraft.drawing.geometry import edge_paths, markup
from onnxgraft.drawing.layout import Edge, Item, Layout, place

State = Literal["kept", "changed", "removed", "added", "around"]

_LETTER, _OP_LETTER = 6.4, 8.2  # widths, of mono 10.5 and of sans 13 bold
_HEAD, _LINE, _PILL = 40.0, 15.0, 22.0
_NAME_COLUMNS, _ROW_COLUMNS, _LABEL_COLUMNS = 30, 40, 26
_MARGIN = 8.0
_STILL = 0.02


@dataclass(frozen=True)
class Card:
    """One node. `rows` are lines of label, text and tool tip; `inputs` the tensors that are drawn as lines."""

    op: str
    name: str
    inputs: tuple[str, ...]
    outputs: tuple[str, ...]
    state: State
    rows: tuple[tuple[str, str, str], ...] = ()
    number: int | None = None  # in the graph


def draw_cards(cards: Sequence[Card], shapes: Mapping[str, str], title: str) -> tuple[str, float]:
    """The picture and its width; `shapes` are texts such as "float32[1,64,56,56]" by tensor."""
    if not cards:
        return "", 0.0
    layout, pills = _lay_out(cards)
    left = max(0.0, *(_overhang(cards, shapes, layout, key) for key in layout.items)) + _MARGIN
    width, height = layout.width + left + _MARGIN, layout.height + 2 * _MARGIN
    parts = [
        f'<svg xmlns="http://www.w3.org/2000/svg" width="{width:.0f}" height="{height:.0f}" '
        f'viewBox="0 0 {width:.0f} {height:.0f}" role="img">',
        f"<title>{markup(title)}</title>",
        f'<g transform="translate({_MARGIN} {_MARGIN})">',
        *(_edge(layout, edge) for edge in layout.edges),
    ]
    for index, card in enumerate(cards):
        parts += _card(card, layout, f"n{index}")
    for key, tensor in pills.items():
        parts += _pill(tensor, layout, key)
    parts += _labels(cards, pills, shapes, layout)
    return "\n".join([*parts, "</g></svg>"]), width


def shorten(text: str, columns: int) -> str:
    """The text with a mark in its middle instead of the excess."""
    if _columns(text) <= columns:
        return text
    head, tail = text[: columns // 3], text[-(columns - columns // 3 - 1) :]
    while _columns(head) + 1 + _columns(tail) > columns:
        head, tail = head[:-1], tail[1:] if len(tail) > len(head) else tail
    return f"{head}…{tail}"


def _columns(text: str) -> int:
    return sum(2 if unicodedata.east_asian_width(letter) in "WF" else 1 for letter in text)


def _lay_out(cards: Sequence[Card]) -> tuple[Layout, dict[str, str]]:
    """The layout, and the tensors of pills. Items: "n" and the number of a card, "i" and "o" for pills."""
    writers = {name: f"n{k}" for k, card in reversed(list(enumerate(cards))) for name in card.outputs if name}
    read = {name for card in cards for name in card.inputs}
    sizes = {f"n{k}": _size(card) for k, card in enumerate(cards)}
    reads: dict[str, list[str]] = {}
    pills: dict[str, str] = {}
    for k, card in enumerate(cards):
        reads[f"n{k}"] = []
        for name in dict.fromkeys(card.inputs) if card.state == "around" else card.inputs:
            source = writers.get(name)
            if source is not None and _leads_to(reads, source, f"n{k}"):
                source = None  # a graph that is not a DAG: layers must be one
            if source is None and card.state != "around":
                source = f"i{name}".replace("|", "¦")
                pills[source] = name
            if source is not None:
                reads[f"n{k}"].append(source)
    for k, card in enumerate(cards):
        if card.state != "around":
            for name in card.outputs:
                if name and name not in read and writers.get(name) == f"n{k}":
                    key = f"o{name}".replace("|", "¦")
                    pills[key] = name
                    reads[key] = [f"n{k}"]
    sizes |= {key: (_letters(shorten(name, _NAME_COLUMNS)) + 20, _PILL) for key, name in pills.items()}
    return place(sizes, reads, still=_STILL), pills


def _leads_to(reads: Mapping[str, Sequence[str]], start: str, goal: str) -> bool:
    """Whether an input of `start`, direct or indirect, is or reads `goal`."""
    left, seen = [start], {start}
    while left:
        item = left.pop()
        if item == goal:
            return True
        new = set(reads.get(item, ())) - seen
        seen |= new
        left += new
    return False


def _letters(text: str) -> float:
    return _LETTER * _columns(text)


def _size(card: Card) -> tuple[float, float]:
    texts = [_letters(shorten(card.name, _NAME_COLUMNS)), _OP_LETTER * _columns(card.op) + 36]
    texts += [_letters(f"{label} {shorten(text, _ROW_COLUMNS)}") + 6 for label, text, _ in card.rows]
    height = _HEAD + (_LINE * len(card.rows) + 6 if card.rows else 0)
    return max(texts) + 20, height if card.name else height - 12


def _overhang(cards: Sequence[Card], shapes: Mapping[str, str], layout: Layout, key: str) -> float:
    """How far the label of the rightmost items extends beyond the picture."""
    if not key.startswith("n") or "|" in key:
        return 0.0
    labels = [shapes[name] for name in cards[int(key[1:])].outputs if name in shapes]
    longest = max((_letters(shorten(text, _LABEL_COLUMNS)) for text in labels), default=0.0)
    return layout.items[key].x + 6 + longest - layout.width


def _edge(layout: Layout, edge: Edge) -> str:
    path, head = edge_paths(layout, edge)
    return f'<path class="line" d="{path}"/><path class="head" d="{head}"/>'


def _card(card: Card, layout: Layout, key: str) -> Iterator[str]:
    item = layout.items[key]
    left, top = item.x - item.width / 2, item.y - item.height / 2
    yield f'<g class="card {card.state}"><title>{markup(f"{card.op} {card.name}")}</title>'
    yield f'<rect x="{left:.1f}" y="{top:.1f}" width="{item.width:.1f}" height="{item.height:.1f}" rx="6"/>'
    yield _text(item.x, top + 17, card.op, "op")
    if card.name:
        yield _text(item.x, top + 32, shorten(card.name, _NAME_COLUMNS), "name")
    y = top + (_HEAD if card.name else _HEAD - 12) + 9
    for label, text, tip in card.rows:
        yield (
            f'<text class="row" x="{left + 10:.1f}" y="{y:.1f}"><title>{markup(tip)}</title>'
            f'<tspan class="label">{markup(label)}</tspan> {markup(shorten(text, _ROW_COLUMNS))}</text>'
        )
        y += _LINE
    yield "</g>"


def _pill(tensor: str, layout: Layout, key: str) -> Iterator[str]:
    item = layout.items[key]
    left, top = item.x - item.width / 2, item.y - item.height / 2
    yield f'<g class="pill"><title>{markup(tensor)}</title>'
    yield f'<rect x="{left:.1f}" y="{top:.1f}" width="{item.width:.1f}" height="{_PILL:g}" rx="{_PILL / 2:g}"/>'
    yield _text(item.x, item.y + 4, shorten(tensor, _NAME_COLUMNS), "name") + "</g>"


def _labels(
    cards: Sequence[Card], pills: Mapping[str, str], shapes: Mapping[str, str], layout: Layout
) -> Iterator[str]:
    """Type and shape of tensors, where a line leaves the writer and no box or other label is in the way."""
    taken = [_Box.of(item) for item in layout.items.values() if item.height]
    starts = {edge.start for edge in layout.edges}
    written = {f"n{k}": next((name for name in card.outputs if name in shapes), "") for k, card in enumerate(cards)}
    for key, name in {**written, **pills}.items():
        if key not in starts or name not in shapes:
            continue
        item, text = layout.items[key], shorten(shapes[name], _LABEL_COLUMNS)
        top = item.y + item.height / 2 + 4
        for x, anchor in ((item.x + 6, "start"), (item.x - 6 - _letters(text), "end")):
            box = _Box(x, top, x + _letters(text), top + 12)
            if not any(box.meets(other) for other in taken):
                taken.append(box)
                place = f'x="{item.x + (6 if anchor == "start" else -6):.1f}" y="{top + 9:.1f}" text-anchor="{anchor}"'
                tip = markup(f"{name}  {shapes[name]}")
                yield f'<text class="shape" {place}><title>{tip}</title>{markup(text)}</text>'
                break


@dataclass(frozen=True)
class _Box:
    left: float
    top: float
    right: float
    bottom: float

    @staticmethod
    def of(item: Item) -> _Box:
        half, rise = item.width / 2, item.height / 2
        return _Box(item.x - half, item.y - rise, item.x + half, item.y + rise)

    def meets(self, other: _Box) -> bool:
        across = self.left < other.right and other.left < self.right
        return across and self.top < other.bottom and other.top < self.bottom


def _text(x: float, y: float, text: str, kind: str) -> str:
    return f'<text class="{kind}" x="{x:.1f}" y="{y:.1f}" text-anchor="middle">{markup(text)}</text>'
