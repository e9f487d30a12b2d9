"""Texts of models as HTML."""

from __future__ import annotations

from collections.abc import Iterable, Sequence

from onnxgraft.drawing.geometry import markup


def text(value: object) -> str:
    """The value as HTML text, fit for attributes in double quotes too."""
    return markup(str(value))


def table(headings: Sequence[str], rows: Iterable[Sequence[str]], numbers: Iterable[int] = ()) -> str:
    """A table of cells that are HTML; `numbers` are the columns that are aligned to the right."""
    right = set(numbers)

    def cells(tag: str, row: Sequence[str]) -> str:
        sides = (' class="number"' if k in right else "" for k in range(len(row)))
        return "".join(f"<{tag}{side}>{cell}</{tag}>" for side, cell in zip(sides, row, strict=True))

    body = "\n".join(f"<tr>{cells('td', row)}</tr>" for row in rows)
    head = "".join(cells("th", headings)).replace("<th", '<th scope="col"')
    return f'<div class="wide"><table><thead><tr>{head}</tr></thead>\n<tbody>{body}</tbody></table></div>'
