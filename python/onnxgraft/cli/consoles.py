"""Where results and progress are shown."""

from __future__ import annotations

import itertools
import sys
from collections.abc import Callable, Iterator
from contextlib import contextmanager

from rich.console import Console
from rich.progress import (
    BarColumn,
    MofNCompleteColumn,
    Progress,
    SpinnerColumn,
    TextColumn,
    TimeElapsedColumn,
    TimeRemainingColumn,
)

# Tables in a pipe or a file are as wide as they need, not cut to a terminal that is not there.
_FILE_WIDTH = 200

_quiet = False


def set_quiet(quiet: bool) -> None:
    """Shows nothing from now on, or everything again."""
    global _quiet  # noqa: PLW0603
    _quiet = quiet


def results() -> Console:
    """Standard output: what the user asked for."""
    width = None if sys.stdout.isatty() else _FILE_WIDTH
    return Console(markup=False, highlight=False, emoji=False, width=width, quiet=_quiet)


def say(text: str) -> None:
    """Shows a text as it is: lines are not broken."""
    results().print(text, soft_wrap=True)


def error(text: str) -> None:
    """Shows one line on standard error."""
    print(f"onnxgraft: {' '.join(text.splitlines())}", file=sys.stderr)


@contextmanager
def progress(total: int | None) -> Iterator[Callable[[str], object]]:
    """Shows on standard error how far the work is, if that is a terminal; nothing stays of it afterwards.

    Args:
        total: The number of stages; None if nobody knows.

    Yields:
        A function to call with the name of each stage as it begins.
    """
    console = Console(stderr=True, markup=False, highlight=False, emoji=False)
    if _quiet or not console.is_terminal:
        yield lambda stage: None
        return
    columns = (
        SpinnerColumn(),
        TextColumn("{task.description}", markup=False),
        BarColumn(),
        MofNCompleteColumn(),
        TimeElapsedColumn(),
    )
    with Progress(*columns, console=console, transient=True) as bar:
        task, done = bar.add_task("", total=total), itertools.count()
        yield lambda stage: bar.update(task, description=stage, completed=next(done), refresh=True)


@contextmanager
def countdown(description: str) -> Iterator[Callable[[int, int | None], object]]:
    """Shows on standard error how many of equal pieces are done and the time left, if that is a terminal.

    Yields:
        A function to call with the number of pieces done, and of all, if it is known.
    """
    console = Console(stderr=True, markup=False, highlight=False, emoji=False)
    if _quiet or not console.is_terminal:
        yield lambda done, total: None
        return
    columns = (TextColumn("{task.description}", markup=False), BarColumn(), MofNCompleteColumn())
    times = (TextColumn("left", markup=False), TimeRemainingColumn(), TextColumn("gone", markup=False))
    with Progress(*columns, *times, TimeElapsedColumn(), console=console, transient=True) as bar:
        task = bar.add_task(description, total=None)
        yield lambda done, total: bar.update(task, completed=done, total=total)
