"""A report as a table of text."""

from __future__ import annotations

from collections import Counter
from collections.abc import Iterable, Iterator, Sequence
from typing import TYPE_CHECKING

from onnxgraft.text_table import fitted, table
from onnxgraft.texts import one_line

if TYPE_CHECKING:
    from onnxgraft.report.records import Report, Step


def steps_table(report: Report) -> str:
    """One row per transformation; of later rounds, those that replaced something or failed."""
    steps = report.steps
    several = report.rounds > 1
    # Refused occurrences are found again in every round, so sums are per round.
    found, refused = ("", "") if several else (sum(step.found for step in steps), report.refused)
    nodes = f"{steps[0].nodes_before} -> {steps[-1].nodes_after}" if steps else ""
    headings = _columns(("Transformation", "Round", "Found", "Replaced", "Refused", "Nodes", "Seconds"), several)
    footer = _columns(("total", report.rounds, found, report.replaced, refused, nodes, _seconds(steps)), several)
    shown = [step for step in steps if step.round == 1 or step.replaced or step.error is not None or step.undone]
    rows = []
    for step in shown:
        counts = step.found, step.replaced, step.refused, f"{step.nodes_before} -> {step.nodes_after}"
        rows.append(_columns((step.transformation, step.round, *counts, _seconds([step])), several))
    return table(
        headings,
        rows,
        numbers=range(1, len(headings)),
        footer=footer if len(steps) > 1 else None,
        notes=list(map(remark, shown)),
    )


def _columns(cells: Sequence[object], several_rounds: bool) -> list[str]:
    """The cells as texts, without the round if there is only one."""
    return [str(cell) for number, cell in enumerate(cells) if several_rounds or number != 1]


def _seconds(steps: Iterable[Step]) -> str:
    return f"{sum(step.seconds for step in steps):.2f}"


def remark(step: Step) -> str:
    """Remarks on a step besides its counts; empty if there are none."""
    if step.error is not None:
        return f"failed, undone: {step.error}"
    if step.undone is not None:
        return f"undone: {step.undone}"
    remarks = ["random weights"] if step.random and step.replaced else []
    if step.done:
        remarks.append(f"already INT8: {step.done}")
    if step.finished:
        remarks.append(f"{step.finished} finished")
    return "; ".join(remarks + step.remarks)


def refusals(report: Report) -> Iterator[str]:
    """One line for each transformation and reason. A repeated refusal is listed once, not for each round."""
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
    """The table, with the preparation before it and the warnings after it."""
    lines = []
    changes = [f"{step.name} {step.changed}" for step in report.prepared if step.changed]
    if changes:
        lines += [f"prepared: {', '.join(changes)}", ""]
    lines += [steps_table(report), ""]
    lines += () if report.filled is None else report.filled.lines()
    lines += map(one_line, refusals(report))
    lines += (f"warning: {one_line(warning)}" for warning in report.warnings)
    if report.account is not None and (report.account.operators or report.account.left):
        lines.append(one_line(str(report.account)))
    return fitted("\n".join(lines)).rstrip("\n")
