"""Results as tables on the terminal."""

from __future__ import annotations

from rich import box
from rich.console import Console
from rich.table import Table

from bench.figures import Contest, Figure, Results
from bench.groups import GROUPS


def amount(value: float, unit: str) -> str:
    """Seconds as milliseconds or seconds, with three significant digits."""
    if unit == "s" and value < 1:
        return f"{1000 * value:.3g} ms"
    return f"{value:.3g} {unit}" if value < 1000 else f"{value:,.0f} {unit}"


def ratio(value: float) -> str:
    """Two decimals; below 1 three significant digits."""
    return f"{value:.3g}" if value < 1 else f"{value:,.2f}"


def show(results: Results) -> None:
    """Prints a table for each group that was run."""
    console = Console(markup=False, highlight=False, width=120)
    for group, figures in results.figures.items():
        if figures:
            console.print(_figures(GROUPS[group][1], figures))
    for contest in results.contests:
        console.print(_contest(contest))


def _table(title: str, first: str, *numbers: str) -> Table:
    table = Table(first, title=title, title_justify="left", box=box.SIMPLE)
    for heading in numbers:
        table.add_column(heading, justify="right")
    return table


def _figures(title: str, figures: list[Figure]) -> Table:
    table = _table(title, "Figure", "Ratio", "Aim", "Measured", "Against")
    for figure in figures:
        mark = " !" if figure.met is False else "  "
        aim = "" if figure.aim is None else f"<= {figure.aim:.3g}"
        sides = (amount(side, figure.unit) for side in (figure.measured, figure.against))
        name = f"{figure.name} ({figure.note})" if figure.note else figure.name
        table.add_row(name, ratio(figure.value) + mark, aim, *sides)
    return table


def _contest(contest: Contest) -> Table:
    columns = ("Time", "µs each", f"x {contest.floor}", "without conversion")
    table = _table(contest.work, "Tool", *columns)
    table.add_row(contest.floor, *_row(contest, contest.floor_seconds), "")
    for entry in contest.entries:
        alone = ratio(entry.rewriting_seconds / contest.floor_seconds)
        table.add_row(entry.tool, *_row(contest, entry.seconds), alone)
    for reason in contest.left_out:
        table.add_row(f"({reason})")
    return table


def _row(contest: Contest, seconds: float) -> tuple[str, str, str]:
    each = 1e6 * seconds / contest.occurrences
    return amount(seconds, "s"), f"{each:,.1f}", ratio(seconds / contest.floor_seconds)
