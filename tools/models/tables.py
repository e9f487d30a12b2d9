"""Writes counted firings as Markdown tables, one set per family."""

from __future__ import annotations

import re
from collections.abc import Callable, Iterator, Sequence
from typing import Any

from onnxgraft.catalogue import rows as catalogue
from tools.models.coverage import coverage_table
from tools.models.families import FAMILIES, family_of, prepared_for
from tools.models.firing import ORDER, QUANTIZING
from tools.models.overviews import recipe_table, step_table

Row = dict[str, Any]


def render(rows: dict[str, Row]) -> str:
    """All tables: facts about every model first, then family by family."""
    parts = [
        "### What each preparation step is for\n",
        step_table(rows),
        "### What the recipes do\n",
        recipe_table(rows),
        "### What is on INT8 then, and what is not\n",
        coverage_table(rows),
    ]
    for family in FAMILIES:
        models = [model for model in rows if family_of(model) == family]
        if models:
            parts += [f"### {family.title}\n", *_family({model: rows[model] for model in models})]
    return "\n".join(parts)


def _family(rows: dict[str, Row]) -> Iterator[str]:
    yield "Preparation and quantizing:\n"
    steps = list(dict.fromkeys(name for row in rows.values() for name in row["prepared"]["preparation"]))
    yield _table("Step", rows, [*steps, *QUANTIZING], _preparation)
    yield "Each right after quantizing:\n"
    yield _table("Transformation", rows, list(catalogue()), lambda row, name: _both(row, "alone", name))
    yield "One after the other:\n"
    yield _table("Transformation", rows, ORDER, lambda row, name: _both(row, "in_order", name))
    errors = {f"`{model}`, `{name}`: {text}" for model, row in rows.items() for name, text in _errors(row)}
    yield from (f"- fails: {error}" for error in sorted(errors))
    if errors:
        yield ""
    silent = list(_silent(rows))
    if silent:
        yield "Made for this network and found nothing, one after the other on the prepared graph:\n"
        yield "| Transformation | Model | Matched | Where it ended |\n|---|---|---|---|"
        yield "\n".join(silent) + "\n"


def _table(heading: str, rows: dict[str, Row], names: Sequence[str], cell: Callable[[Row, str], str]) -> str:
    columns: dict[tuple[str, ...], list[str]] = {}  # models of equal counts share one
    for model, row in rows.items():
        columns.setdefault(tuple(cell(row, name) for name in names), []).append(f"`{model}`")
    heads = [", ".join(models) for models in columns.values()]
    lines = [f"| {heading} | " + " | ".join(heads) + " |", "|---|" + "--:|" * len(heads)]
    for name, cells in zip(names, zip(*columns, strict=True), strict=True):
        if any(cells):
            lines.append(f"| `{name}` | " + " | ".join(cells) + " |")
    if len(lines) == 2:
        return "(none)\n"
    return "\n".join(lines) + "\n"


def _preparation(row: Row, name: str) -> str:
    if name in QUANTIZING:
        counts = [row[form]["quantized"].get(name, 0) for form in ("exported", "prepared")]
        return _joined(*(str(count or "") for count in counts))
    return str(row["prepared"]["preparation"].get(name, "") or "")


def _both(row: Row, how: str, name: str) -> str:
    return _joined(*(_count(row[form][how].get(name)) for form in ("exported", "prepared")))


def _joined(exported: str, prepared: str) -> str:
    return exported if exported == prepared else f"{exported or 0} → {prepared or 0}"


def _count(firing: Row | None) -> str:
    if firing is None:
        return ""
    if firing["error"]:
        return "fails"
    return f"{firing['replaced']}" + (f" ({firing['refused']} refused)" if firing["refused"] else "")


def _errors(row: Row) -> Iterator[tuple[str, str]]:
    for form in ("exported", "prepared"):
        for how in ("alone", "in_order"):
            yield from ((name, f["error"]) for name, f in row[form][how].items() if f["error"])


def _silent(rows: dict[str, Row]) -> Iterator[str]:
    """One line per transformation and reason, with all models that share it."""
    models: dict[tuple[str, str, str], list[str]] = {}
    for model, row in rows.items():
        for name in prepared_for(model, catalogue().values()):
            if miss := row["prepared"]["misses"].get(name):
                matched = f"{miss['matched']} of {miss['of']}"
                models.setdefault((name, matched, _reason(miss["text"])), []).append(f"`{model}`")
    for (name, matched, reason), names in models.items():
        yield f"| `{name}` | {', '.join(names)} | {matched} | {reason} |"


def _reason(text: str) -> str:
    """The part after the count; the count has a column of its own."""
    return re.sub(r"^\d+ of \d+ pattern nodes matched[^;]*; ", "", text).replace("|", "\\|")
