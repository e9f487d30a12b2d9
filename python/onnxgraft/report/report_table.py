"""A report as a table for people."""

from __future__ import annotations

import io
from collections import Counter
from collections.abc import Iterator
from typing import TYPE_CHECKING

from rich import box
from rich.console import Console
from rich.table import Table

from onnxgraft.texts import one_line

if TYPE_CHECKING:
    from onnxgraft.report.records import Report, Step

# As wide as the content needs: the text may go to a file.
_WIDTH = 200


def table(report: Report) -> Table:
    """One row per transformation; of later rounds, those that replaced something or failed."""
    several_rounds = report.rounds > 1
    result = Table(box=box.SIMPLE, show_footer=len(report.steps) > 1)
    result.add_column("Transformation", "total")
    if several_rounds:
        result.add_column("Round", str(report.rounds), justify="right")
    steps = report.steps
    for heading, footer in (
        # What stays refused is found again in every round, so only one round has a sum.
        ("Found", "" if several_rounds else sum(step.found for step in steps)),
        ("Replaced", report.replaced),
        ("Refused", "" if several_rounds else report.refused),
        ("Nodes before", steps[0].nodes_before if steps else 0),
        ("Nodes after", steps[-1].nodes_after if steps else 0),
    ):
        result.add_column(heading, str(footer), justify="right")
    result.add_column("Seconds", f"{sum(step.seconds for step in steps):.2f}", justify="right")
    result.add_column("Remark")
    for step in steps:
        if step.round > 1 and not step.replaced and step.error is None and step.undone is None:
            continue
        number = [str(step.round)] if several_rounds else []
        counts = (step.found, step.replaced, step.refused, step.nodes_before, step.nodes_after)
        cells = (step.transformation, *number, *counts, f"{step.seconds:.2f}", remark(step))
        result.add_row(*map(one_line, cells))
    return result


def remark(step: Step) -> str:
    """What there is to know of a step besides its counts; empty if nothing is."""
    if step.error is not None:
        return f"failed, put back: {step.error}"
    if step.undone is not None:
        return f"undone: {step.undone}"
    remarks = ["random weights"] if step.random and step.replaced else []
    if step.done:
        remarks.append(f"already INT8: {step.done}")
    if step.finished:
        remarks.append(f"{step.finished} finished")
    return "; ".join(remarks + step.remarks)


def refusals(report: Report) -> Iterator[str]:
    """One line for each transformation and reason. What stays refused is told once, not for each round."""
    for name in dict.fromkeys(step.transformation for step in report.steps):
        most: dict[str, int] = {}
        for step in report.steps:
            if step.transformation == name:
                found: Counter[str] = Counter()
                for pattern in step.patterns:
                    found.update(pattern.reasons)
                most = {reason: max(most.get(reason, 0), found.get(reason, 0)) for reason in {**most, **found}}
        for reason, count in most.items():
            yield f"{name}: {count} refused: {reason}"


def text(report: Report) -> str:
    """The table with the preparation in front and the warnings behind, without colours."""
    stream = io.StringIO()
    console = Console(file=stream, width=_WIDTH, markup=False, highlight=False, emoji=False, color_system=None)
    changes = [f"{step.name} {step.changed}" for step in report.prepared if step.changed]
    if changes:
        console.print(f"prepared: {', '.join(changes)}", soft_wrap=True)
    console.print(table(report))
    for line in () if report.filled is None else report.filled.lines():
        console.print(line, soft_wrap=True)
    for line in refusals(report):
        console.print(one_line(line), soft_wrap=True)
    for warning in report.warnings:
        console.print(f"warning: {one_line(warning)}", soft_wrap=True)
    if report.account is not None and (report.account.operators or report.account.left):
        console.print(one_line(str(report.account)), soft_wrap=True)
    lines = (line.rstrip() for line in stream.getvalue().splitlines())
    return "\n".join(lines).strip("\n")
