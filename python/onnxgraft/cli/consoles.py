"""Output of results and progress."""

from __future__ import annotations

import itertools
import sys
from collections.abc import Callable, Iterator, Sequence
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

from onnxgraft.cli import streams
from onnxgraft.text_table import fitted
from onnxgraft.texts import joined, one_line

_quiet = False


def set_quiet(quiet: bool) -> None:
    """Shows nothing from now on, or everything again."""
    global _quiet  # noqa: PLW0603
    _quiet = quiet


def say(text: str) -> None:
    """Shows a text on standard output as it is: lines are not broken, control characters are escaped."""
    _show("\n".join(map(one_line, text.split("\n"))))


def tell(text: str) -> None:
    """The same, with lines that are too long wrapped between words."""
    say(fitted(text))


def error(text: str) -> None:
    """Shows one line on standard error."""
    streams.write_error(f"onnxgraft: {joined(text)}")


def _show(text: str) -> None:
    if not _quiet:
        streams.write(text)


@contextmanager
def progress(transformations: Sequence[str]) -> Iterator[Callable[[str], object]]:
    """Shows progress on standard error if that is a terminal, and removes it afterwards.

    Args:
        transformations: The names of those that run, in each round.

    Yields:
        A function to call with the name of each stage as it starts.
    """
    console = Console(stderr=True, markup=False, highlight=False, emoji=False)
    if _quiet or sys.stderr is None or not console.is_terminal:
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
        # The count starts again with each round: the number of rounds is not known.
        task, done, rounds = bar.add_task("", total=len(transformations)), itertools.count(), itertools.count(1)

        round_number = 1

        def advance(stage: str) -> None:
            nonlocal round_number
            if stage in transformations:
                place = next(done) % len(transformations)
                round_number = next(rounds) if place == 0 else round_number
                text = stage if round_number < 2 else f"round {round_number}: {stage}"
                bar.update(task, description=one_line(text), completed=place, refresh=True)
            else:
                bar.update(task, description=one_line(stage), refresh=True)

        yield advance


@contextmanager
def countdown(description: str) -> Iterator[Callable[[int, int | None], object]]:
    """Shows on standard error how many of equal pieces are done and the time left, if that is a terminal.

    Yields:
        A function to call with the number of pieces done, and of all, if it is known.
    """
    console = Console(stderr=True, markup=False, highlight=False, emoji=False)
    if _quiet or sys.stderr is None or not console.is_terminal:
        yield lambda done, total: None
        return
    columns = (TextColumn("{task.description}", markup=False), BarColumn(), MofNCompleteColumn())
    times = (TextColumn("left", markup=False), TimeRemainingColumn(), TextColumn("gone", markup=False))
    with Progress(*columns, *times, TimeElapsedColumn(), console=console, transient=True) as bar:
        task = bar.add_task(description, total=None)
        yield lambda done, total: bar.update(task, completed=done, total=total)
