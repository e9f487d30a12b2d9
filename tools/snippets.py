"""The code blocks of a page, which readers copy, so that tests can run them unchanged."""

from __future__ import annotations

import re
import shlex
from collections.abc import Iterator
from dataclasses import dataclass
from pathlib import Path

_FENCE = re.compile(r"^```(\w*)\n(.*?)^```$", re.MULTILINE | re.DOTALL)


@dataclass(frozen=True)
class Block:
    """One fenced block.

    Attributes:
        page: The page that contains it.
        line: The number of its first line.
        language: `python`, `sh` and so on; empty if the fence does not say.
        text: The lines.
    """

    page: Path
    line: int
    language: str
    text: str

    def run_python(self, namespace: dict[str, object]) -> None:
        """Executes a block of Python; an exception names page and line."""
        padded = "\n" * (self.line - 1) + self.text
        exec(compile(padded, str(self.page), "exec"), namespace)

    def lines(self) -> Iterator[tuple[str, int]]:
        """Yields each line of a block of sh with its continuations, and the exit code in its comment."""
        for line in self.text.replace("\\\n", " ").splitlines():
            stated = re.search(r"# exit code (\d+)", line)
            if line.strip():
                yield line, int(stated[1]) if stated else 0

    def commands(self) -> Iterator[tuple[list[str], int]]:
        """Yields the words of each command of a block of sh, and the exit code in its comment, 0 without one."""
        for line, code in self.lines():
            words = shlex.split(line, comments=True)
            if words:
                yield words, code


def blocks(page: Path) -> list[Block]:
    """All fenced blocks of `page`, in order."""
    text = page.read_text(encoding="utf-8")
    return [Block(page, text.count("\n", 0, found.start(2)) + 1, found[1], found[2]) for found in _FENCE.finditer(text)]
