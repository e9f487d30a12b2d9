"""An accuracy as a page: a plot that shows where in the network it is lost, then the tables."""

from __future__ import annotations

import math
from collections.abc import Sequence

from onnxgraft.report.page import page, table, text
from onnxgraft.verification.accuracy import Accuracy, TensorAccuracy, decibels
from onnxgraft.verification.accuracy_text import sections

_WIDTH, _HEIGHT, _LEFT, _BOTTOM, _TOP = 1100, 260, 46, 24, 10
_HIGHEST = 80.0  # higher values are drawn at the upper edge
_BETWEEN_LINES = 20


def accuracy_page(accuracy: Accuracy, *, before: str = "before", after: str = "after") -> str:
    """The accuracy as one HTML file.

    Args:
        accuracy: The result of `measure`.
        before: The page's name for the model before.
        after: Its name for the model after.
    """
    facts = [f"{before} → {after}", f"{accuracy.samples} samples", accuracy.verdict]
    parts = [_plot(accuracy.tensors, accuracy.wanted)] if accuracy.tensors else []
    for title, headings, rows in sections(accuracy):
        cells = [[f"<code>{text(cell)}</code>" if k < 2 else text(cell) for k, cell in enumerate(row)] for row in rows]
        parts.append(f"<h2>{text(title)}</h2>{table(headings, cells, range(2, len(headings)))}")
    parts += [f'<p class="note">{text(note)}</p>' for note in accuracy.notes]
    cards = [_card(row) for row in sorted(accuracy.tensors, key=lambda row: row.sqnr)]
    return page("Accuracy of a quantized model", facts, "\n".join(parts), "tensors", [], cards)


def _plot(tensors: Sequence[TensorAccuracy], wanted: float | None) -> str:
    """A point for each tensor: left to right in the order of computation, up with its SQNR."""
    values = [max(0.0, min(_HIGHEST, -math.inf if math.isnan(row.sqnr) else row.sqnr)) for row in tensors]
    width, height = _WIDTH - _LEFT - 10, _HEIGHT - _TOP - _BOTTOM

    def x(place: int) -> float:
        return _LEFT + width * (place + 0.5) / len(tensors)

    def y(value: float) -> float:
        return _TOP + height * (1 - value / _HIGHEST)

    marks = []
    for level in range(0, int(_HIGHEST) + 1, _BETWEEN_LINES):
        marks.append(
            f'<line x1="{_LEFT}" x2="{_WIDTH - 10}" y1="{y(level):.1f}" y2="{y(level):.1f}" stroke="var(--rule)"/>'
            f'<text x="{_LEFT - 6}" y="{y(level) + 4:.1f}" text-anchor="end">{level} dB</text>'
        )
    if wanted is not None and 0 <= wanted <= _HIGHEST:
        marks.append(
            f'<line x1="{_LEFT}" x2="{_WIDTH - 10}" y1="{y(wanted):.1f}" y2="{y(wanted):.1f}" '
            f'stroke="var(--removed-line)" stroke-dasharray="6 4"><title>required: {wanted:g} dB</title></line>'
        )
    line = " ".join(f"{x(place):.1f},{y(value):.1f}" for place, value in enumerate(values))
    marks.append(f'<polyline points="{line}" fill="none" stroke="var(--kept-line)"/>')
    for place, (row, value) in enumerate(zip(tensors, values, strict=True)):
        hint = text(f"{row.name}, {row.writer}: {decibels(row.sqnr)}")
        marks.append(
            f'<circle cx="{x(place):.1f}" cy="{y(value):.1f}" r="3" fill="var(--accent)"><title>{hint}</title></circle>'
        )
    marks.append(f'<text x="{_LEFT}" y="{_HEIGHT - 6}">first tensor</text>')
    marks.append(f'<text x="{_WIDTH - 10}" y="{_HEIGHT - 6}" text-anchor="end">last</text>')
    label = "signal to quantization noise of each tensor, in the order of computation"
    head = f'<svg viewBox="0 0 {_WIDTH} {_HEIGHT}" role="img" aria-label="{label}">'
    return f'<h2>Where accuracy is lost</h2><div class="wide">{head}{"".join(marks)}</svg></div>'


def _card(row: TensorAccuracy) -> str:
    what = f"{row.writer}: differs by {row.max_error:.3g}, with values up to {row.scale:.3g}"
    return (
        f'<article data-kind="tensor" tabindex="-1"><h3><span class="badge region">{text(decibels(row.sqnr))}</span>'
        f'<code>{text(row.name)}</code></h3><p class="what">{text(what)}</p></article>'
    )
