"""Where results and progress are shown."""

from __future__ import annotations

import itertools
import sys
from collections.abc import Callable, Iterator
from contextlib import contextmanager

from rich.console import Console
from rich.progress import BarColumn, MofNCompleteColumn, Progress, SpinnerColumn, TextColumn, TimeElapsedColumn

# Tables in a pipe or a file are as wide as they need, not cut to a terminal that is not there.
_FILE_WIDTH = 200


def results() -> Console:
    """Standard output: what the user asked for."""
    return Console(markup=False, highlight=False, emoji=False, width=None if sys.stdout.isatty() else _FILE_WIDTH)


@contextmanager
def progress(total: int) -> Iterator[Callable[[str], object]]:
    """Shows on standard error how far the work is, if that is a terminal; nothing stays of it afterwards.

    Args:
        total: The number of stages.

    Yields:
        A function to call with the name of each stage as it begins.
    """
    console = Console(stderr=True, markup=False, highlight=False, emoji=False)
    if not console.is_terminal:
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
