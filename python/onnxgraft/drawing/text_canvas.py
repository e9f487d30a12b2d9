"""A grid of characters on which lines meet correctly: corners, branches, and crossings that are not branches."""

from __future__ import annotations

UP, DOWN, LEFT, RIGHT = 1, 2, 4, 8
_LINES = {
    UP: "│",
    DOWN: "│",
    UP | DOWN: "│",
    LEFT: "─",
    RIGHT: "─",
    LEFT | RIGHT: "─",
    DOWN | RIGHT: "┌",
    DOWN | LEFT: "┐",
    UP | RIGHT: "└",
    UP | LEFT: "┘",
    UP | DOWN | RIGHT: "├",
    UP | DOWN | LEFT: "┤",
    DOWN | LEFT | RIGHT: "┬",
    UP | LEFT | RIGHT: "┴",
    UP | DOWN | LEFT | RIGHT: "┼",
}


class Canvas:
    """Text and lines by column and row; it grows to the right and downwards."""

    def __init__(self) -> None:
        self._text: dict[tuple[int, int], str] = {}
        self._lines: dict[tuple[int, int], dict[str, int]] = {}  # directions by the tensor that the line represents

    def write(self, x: int, y: int, text: str) -> None:
        """Text covers lines."""
        for k, character in enumerate(text):
            self._text[x + k, y] = character

    def is_free(self, x: int, y: int, length: int) -> bool:
        """Whether it is empty."""
        return all((x + k, y) not in self._text and (x + k, y) not in self._lines for k in range(length))

    def vertical(self, tensor: str, x: int, top: int, bottom: int) -> None:
        """A line from the middle of one row to the middle of another."""
        for y in range(top, bottom + 1):
            self._add(tensor, x, y, (UP if y > top else 0) | (DOWN if y < bottom else 0))

    def horizontal(self, tensor: str, left: int, right: int, y: int) -> None:
        """A line along a row."""
        for x in range(left, right + 1):
            self._add(tensor, x, y, (LEFT if x > left else 0) | (RIGHT if x < right else 0))

    def stub(self, tensor: str, x: int, y: int, direction: int) -> None:
        """Extends a line to the edge of a cell."""
        self._add(tensor, x, y, direction)

    def _add(self, tensor: str, x: int, y: int, directions: int) -> None:
        cell = self._lines.setdefault((x, y), {})
        cell[tensor] = cell.get(tensor, 0) | directions

    def rows(self) -> list[str]:
        """The lines of text, without trailing blanks."""
        cells = {place: _character(lines) for place, lines in self._lines.items()} | self._text
        height = 1 + max((y for _, y in cells), default=-1)
        width = 1 + max((x for x, _ in cells), default=-1)
        return ["".join(cells.get((x, y), " ") for x in range(width)).rstrip() for y in range(height)]


def _character(lines: dict[str, int]) -> str:
    # If two tensors cross, the vertical one is visible.
    directions = max(lines.values(), key=lambda d: bool(d & UP) + bool(d & DOWN))
    return _LINES.get(directions, " ")
