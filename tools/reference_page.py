"""The command line of the tools that write one page of docs/reference/."""

from __future__ import annotations

import argparse
from collections.abc import Callable, Sequence
from pathlib import Path


def run(name: str, path: Path, page: Callable[[], str], arguments: Sequence[str] | None = None) -> int:
    """Writes the page if it is out of date, or with `--check` only reports that.

    Returns:
        The exit code: 1 if the page is out of date and `--check` is given.
    """
    parser = argparse.ArgumentParser(prog=f"python -m tools.{name}")
    parser.add_argument("--check", action="store_true", help=f"only report whether {path.name} is out of date")
    check = parser.parse_args(arguments).check
    text = page()
    if path.exists() and path.read_text() == text:
        return 0
    print(f"{'out of date' if check else 'wrote'}: {path.name}")
    if not check:
        path.write_text(text)
    return int(check)
