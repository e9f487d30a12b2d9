"""Tables and lines that fit a terminal: names are never cut or broken, the other cells are wrapped.

All output of the program for people is laid out here, so that it reads the same in a pipe.
"""

from __future__ import annotations

import shutil
import textwrap
from collections.abc import Collection, Iterable, Sequence

from onnxgraft.texts import one_line

_GAP = 2  # blanks between columns
_INDENT = "    "  # of notes
_NARROWEST = 16  # a wrapped column is not narrower; a longer name goes to a line of its own instead


def width() -> int:
    """The columns available: those of the terminal, COLUMNS if that is set, or 80."""
    return max(40, shutil.get_terminal_size().columns)


def fitted(text: str, indent: int = 2) -> str:
    """The text with its lines wrapped between words; continuations are indented by this much more than their line."""
    return "\n".join(part for line in text.split("\n") for part in _wrapped_line(line, indent))


def table(
    headings: Sequence[str],
    rows: Iterable[Sequence[object]],
    *,
    names: Collection[int] = (0,),
    numbers: Collection[int] = (),
    footer: Sequence[object] | None = None,
    notes: Sequence[str] = (),
) -> str:
    """The rows below their headings.

    Args:
        headings: One for each column.
        rows: The cells.
        names: The columns whose cells are never broken, since users type them. The last of the others is wrapped.
        numbers: The columns that are aligned to the right; never broken either.
        footer: A last row, below a line.
        notes: Remarks on each row, below it; empty for a row without a note.
    """
    cells = [[one_line(cell) for cell in row] for row in rows]
    total = [] if footer is None else [[one_line(cell) for cell in footer]]
    sizes = [max(map(len, column)) for column in zip(headings, *cells, *total, strict=True)]
    wrapped = next((k for k in reversed(range(len(headings))) if k not in names and k not in numbers), None)
    room = width() - _GAP * (len(sizes) - 1)
    if sum(sizes) > room and wrapped is not None:
        rest = room - (sum(sizes) - sizes[wrapped])
        sizes[wrapped] = max(_least(cells, wrapped, headings), rest)
    for column in sorted(names, key=lambda column: -sizes[column]):
        least = max(_NARROWEST, len(headings[column]))
        sizes[column] = min(sizes[column], max(least, sizes[column] - max(0, sum(sizes) - room)))
    layout = _Layout(sizes, wrapped, numbers)
    line = "-" * min(width(), sum(sizes) + _GAP * (len(sizes) - 1))
    body = []
    for number, row in enumerate(cells):
        body += layout.lines(row)
        if number < len(notes) and notes[number]:
            body += _wrapped_line(_INDENT + one_line(notes[number]), 0)
    end = [part for row in total for part in (line, *layout.lines(row))]
    return "\n".join([*layout.lines(headings), line, *body, *end])


def _least(cells: Sequence[Sequence[str]], column: int, headings: Sequence[str]) -> int:
    words = [word for row in cells for word in row[column].split()]
    return min(max(map(len, [headings[column], *words]), default=0), max(_NARROWEST, len(headings[column])))


class _Layout:
    def __init__(self, sizes: Sequence[int], wrapped: int | None, numbers: Collection[int]) -> None:
        self._sizes = sizes
        self._wrapped = wrapped
        self._numbers = numbers

    def lines(self, row: Sequence[str]) -> list[str]:
        """One row: a name that is longer than its column has a line of its own, the first one before the others."""
        long = [k for k, cell in enumerate(row) if len(cell) > self._sizes[k] and k != self._wrapped]
        if long:
            rest = self.lines(["" if k in long else cell for k, cell in enumerate(row)])
            first = [row[0]] if 0 in long else []
            return [*first, *filter(None, rest), *(_INDENT + row[k] for k in long if k)]
        parts = [[cell] for cell in row]
        if self._wrapped is not None:
            parts[self._wrapped] = _words(row[self._wrapped], self._sizes[self._wrapped]) or [""]
        return [self._joined([part[k] if k < len(part) else "" for part in parts]) for k in range(max(map(len, parts)))]

    def _joined(self, cells: Sequence[str]) -> str:
        sized = (
            cell.rjust(size) if number in self._numbers else cell.ljust(size)
            for number, (cell, size) in enumerate(zip(cells, self._sizes, strict=True))
        )
        return (" " * _GAP).join(sized).rstrip()


def _words(text: str, size: int) -> list[str]:
    return textwrap.wrap(text, size, break_long_words=False, break_on_hyphens=False)


def _wrapped_line(line: str, indent: int) -> list[str]:
    room = width()
    if len(line) <= room:
        return [line]
    before = line[: len(line) - len(line.lstrip())]
    return textwrap.wrap(
        line.strip(),
        room,
        initial_indent=before,
        subsequent_indent=before + " " * indent,
        break_long_words=False,
        break_on_hyphens=False,
    )
