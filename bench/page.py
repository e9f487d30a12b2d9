"""The measured part of docs/development/speed.md: tables in Markdown between two marks, and a picture next to the page.

python -m bench.page    reads them from build/bench.json, which must be that of a whole run
"""

from __future__ import annotations

import sys
from collections.abc import Iterable, Iterator
from pathlib import Path

from bench.figures import Contest, Figure, Results
from bench.groups import GROUPS
from bench.picture import Bar, Panel, draw
from bench.report import amount, ratio

BEGIN, END = "<!-- figures: begin (made by make bench-docs) -->", "<!-- figures: end -->"


def renew(results: Results, folder: Path) -> None:
    """Writes the tables into `speed.md` of a folder, between its marks, and `speed.svg`."""
    page = folder / "speed.md"
    before, rest = page.read_text().split(BEGIN)
    page.write_text(f"{before}{BEGIN}\n\n{tables(results)}\n{END}{rest.split(END)[1]}")
    (folder / "speed.svg").write_text(picture(results.contests))


def tables(results: Results) -> str:
    """The machine, the picture, a table of each group and each contest."""
    facts = results.facts
    versions = ", ".join(f"{name} {version}" for name, version in facts["packages"].items() if version)
    lines = [f"Measured on {facts['cores']} cores, {facts['system']}, with Python {facts['python']}, {versions}.", ""]
    for group, figures in results.figures.items():
        if figures:
            lines += [f"### {GROUPS[group][1]}", "", *_figures(figures), ""]
    lines += ["### The same rewrites by other tools", "", "![Time of all tools as multiples of F3](speed.svg)", ""]
    for contest in results.contests:
        lines += [f"**{contest.work}**", "", *_contest(contest), ""]
    return "\n".join(lines)


def _table(heading: str, numbers: Iterable[str], rows: Iterable[tuple[str, ...]]) -> Iterator[str]:
    columns = [heading, *numbers]
    yield f"| {' | '.join(columns)} |"
    yield f"|---|{'---:|' * (len(columns) - 1)}"
    for row in rows:
        yield f"| {' | '.join(row)} |"


def _figures(figures: list[Figure]) -> Iterator[str]:
    rows = []
    for figure in figures:
        value = ratio(figure.value)
        aim = "" if figure.aim is None else f"<= {figure.aim:.3g}"
        sides = [amount(side, figure.unit) for side in (figure.measured, figure.against)]
        name = f"{figure.name} ({figure.note})" if figure.note else figure.name
        rows.append((name, f"**{value}**" if figure.met is False else value, aim, *sides))
    return _table("Figure", ("Ratio", "Aim", "Measured", "Against"), rows)


def _contest(contest: Contest) -> Iterator[str]:
    def row(tool: str, seconds: float, alone: str) -> tuple[str, ...]:
        each = f"{1e6 * seconds / contest.occurrences:,.1f}"
        return tool, amount(seconds, "s"), each, ratio(seconds / contest.floor_seconds), alone

    rows = [row(contest.floor, contest.floor_seconds, "")]
    for entry in contest.entries:
        rows.append(row(entry.tool, entry.seconds, ratio(entry.rewriting_seconds / contest.floor_seconds)))
    rows += [(reason, "", "", "", "") for reason in contest.left_out]
    return _table("Tool", ("Time", "µs each", f"x {contest.floor}", "without conversion"), rows)


def picture(contests: list[Contest]) -> str:
    """Bars of all tools, a panel per contest that is measured against F3."""
    panels = []
    for contest in contests:
        if contest.floor == "F3":
            bars = [
                Bar(e.tool, e.seconds / contest.floor_seconds, own=not number)
                for number, e in enumerate(contest.entries)
            ]
            panels.append(Panel(contest.work, bars))
    return draw("Time as a multiple of F3, the calls that the arithmetic needs", panels)


def main() -> int:
    """Regenerates the page in docs/development/; returns the exit code."""
    source = Path("build/bench.json")
    results = Results.read(source)
    if results.facts["tiny"] or (missing := GROUPS.keys() - results.figures.keys()):
        what = "of tiny sizes" if results.facts["tiny"] else f"without {', '.join(sorted(missing))}"
        print(f"{source} holds a run {what}: run make bench-docs", file=sys.stderr)
        return 1
    renew(results, Path("docs/development"))
    return 0


if __name__ == "__main__":
    sys.exit(main())
