"""Horizontal bars on one logarithmic scale, as SVG that every viewer shows the same; with its own background."""

from __future__ import annotations

import math
from collections.abc import Iterator, Sequence
from dataclasses import dataclass
from html import escape

from bench.report import ratio

_WIDTH, _MARGIN, _LABELS, _VALUES = 760.0, 20.0, 180.0, 60.0
_TITLE, _HEADING, _ROW, _BAR, _AXIS = 44.0, 30.0, 24.0, 15.0, 30.0
_FONT = 'font-family="Helvetica, Arial, sans-serif"'
_INK, _GREY, _GRID, _OWN, _OTHER = "#1f2937", "#6b7280", "#e5e7eb", "#2563eb", "#9ca3af"


@dataclass(frozen=True)
class Bar:
    """A name with a positive number; `own` highlights it."""

    name: str
    value: float
    own: bool = False


@dataclass(frozen=True)
class Panel:
    """Bars under a heading."""

    heading: str
    bars: Sequence[Bar]


def draw(title: str, panels: Sequence[Panel]) -> str:
    """The whole picture; the axis starts at 1 or, if a value is smaller, at a power of two below it."""
    values = [bar.value for panel in panels for bar in panel.bars]
    low = 2.0 ** math.floor(math.log2(min(values, default=1.0) * 0.999)) if min(values, default=1.0) < 1 else 1.0
    top = max([10.0, *values])
    scale = (_WIDTH - 2 * _MARGIN - _LABELS - _VALUES) / math.log10(top / low)
    left = _MARGIN + _LABELS
    height = _TITLE + sum(_HEADING + _ROW * len(panel.bars) for panel in panels) + _AXIS
    powers = range(math.floor(math.log10(low)), math.ceil(math.log10(top)) + 1)
    ticks = [tick for power in powers for base in (1, 2, 5) if low <= (tick := base * 10.0**power) <= top]
    parts = [
        f'<svg xmlns="http://www.w3.org/2000/svg" width="{_WIDTH:.0f}" height="{height:.0f}" '
        f'viewBox="0 0 {_WIDTH:.0f} {height:.0f}" role="img">',
        f"<title>{escape(title)}</title>",
        f'<rect width="{_WIDTH:.0f}" height="{height:.0f}" rx="8" fill="#ffffff"/>',
        _text(_MARGIN, 24, title, 14, _INK, "start"),
    ]
    for tick in ticks:
        x = left + scale * math.log10(tick / low)
        colour = _GREY if tick == 1 else _GRID
        parts.append(f'<path d="M{x:.1f} {_TITLE:.1f}V{height - _AXIS:.1f}" stroke="{colour}"/>')
        parts.append(_text(x, height - _AXIS + 14, f"{tick:g} x", 11, _GREY, "middle"))
    y = _TITLE
    for panel in panels:
        parts.append(_text(_MARGIN, y + 15, panel.heading, 12, _GREY, "start"))
        y += _HEADING
        for bar in panel.bars:
            parts += _bar(bar, left, y, scale * math.log10(bar.value / low))
            y += _ROW
    return "\n".join([*parts, "</svg>"]) + "\n"


def _bar(bar: Bar, left: float, y: float, length: float) -> Iterator[str]:
    middle = y + _BAR / 2
    yield _text(left - 8, middle, bar.name, 12, _INK, "end")
    colour = _OWN if bar.own else _OTHER
    yield f'<rect x="{left:.1f}" y="{y:.1f}" width="{length:.1f}" height="{_BAR:.0f}" rx="2" fill="{colour}"/>'
    yield _text(left + length + 6, middle, ratio(bar.value), 12, _INK, "start")


def _text(x: float, y: float, text: str, size: float, colour: str, anchor: str) -> str:
    return (
        f'<text x="{x:.1f}" y="{y + size * 0.35:.1f}" text-anchor="{anchor}" {_FONT} font-size="{size:g}" '
        f'fill="{colour}">{escape(text)}</text>'
    )
