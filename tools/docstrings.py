"""Docstrings as Markdown: paragraphs stay, named sections and lists of arguments become bullets."""

from __future__ import annotations

import re
from collections.abc import Iterator

_SECTIONS = ("Args:", "Attributes:", "Returns:", "Raises:")
_ITEM = re.compile(r"^(\*{0,2}\w+(?:, \*{0,2}\w+)*): (.*)$")


def render(text: str) -> Iterator[str]:
    """Yields the lines of a cleaned docstring as Markdown, each paragraph followed by an empty line."""
    for paragraph in re.split(r"\n\s*\n", text.strip()):
        lines = paragraph.splitlines()
        if lines and lines[0] in _SECTIONS:
            yield f"**{lines[0].rstrip(':')}**\n"
            yield from _items([line[4:] for line in lines[1:]])
        elif lines and _ITEM.match(lines[0]):
            yield from _items(lines)
        elif len(lines) > 1 and all(line.startswith("    ") for line in lines):
            yield from ("```text", *(line[4:] for line in lines), "```")
        else:
            yield from lines
        yield ""


def _items(lines: list[str]) -> Iterator[str]:
    """Bullets for `name: text` lines; a line that is indented or has no name belongs to the line before."""
    for number, line in enumerate(lines):
        found = _ITEM.match(line)
        if found:
            names = ", ".join(f"`{name}`" for name in found[1].split(", "))
            yield f"- {names}: {found[2]}"
        else:
            yield line if not number else f"  {line.strip()}"
