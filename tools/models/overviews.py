"""Tables over all models: the purpose of each preparation step, and the results of the recipes."""

from __future__ import annotations

from collections.abc import Iterator
from typing import Any

from onnxgraft.preparation import STEPS
from tools.models.firing import QUANTIZING

Row = dict[str, Any]

_MOST_NAMES = 4  # in one cell


def step_table(rows: dict[str, Row]) -> str:
    """One line per step and effect, with all models that share it."""
    lines = ["| Step | Model | Without it |", "|---|---|---|"]
    for step in STEPS:
        changed = [model for model, row in rows.items() if step in row["losses"]]
        if not changed:
            lines.append(f"| `{step}` | none has this form | |")
            continue
        models: dict[str, list[str]] = {}
        for model in changed:
            effect = ", ".join(_fall(name, *counts) for name, counts in rows[model]["losses"][step].items())
            models.setdefault(effect, []).append(model)
        idle = models.pop("", [])
        lines += [f"| `{step}` | {_names(names)} | {effect} |" for effect, names in models.items()]
        if idle:
            others = _names(idle) if len(idle) <= _MOST_NAMES else f"{len(idle)} others"
            lines.append(f"| `{step}` | {others} | the same counts |")
    return "\n".join(lines) + "\n"


def recipe_table(rows: dict[str, Row]) -> str:
    """One line per model."""
    lines = [
        "| Model | Recipe | Rounds | Nodes | Quantize nodes | Replaced, quantizing aside |",
        "|---|---|--:|--:|--:|---|",
    ]
    equal: dict[tuple[str, ...], list[str]] = {}  # models of equal counts share a line
    for model, row in rows.items():
        run = row["recipe"]
        sizes = [" → ".join(str(size) for size in dict.fromkeys(run[key])) for key in ("nodes", "quantize_nodes")]
        cells = (f"`{run['recipe']}`", str(run["rounds"]), *sizes, ", ".join(_done(run)) or "nothing")
        equal.setdefault(cells, []).append(model)
    lines += [f"| {' | '.join((_names(models), *cells))} |" for cells, models in equal.items()]
    return "\n".join(lines) + "\n"


def _fall(name: str, count: int, without: int) -> str:
    return f"`{name}` {count} → {without}"


def _done(run: Row) -> Iterator[str]:
    yield from (f"`{name}` {count}" for name, count in run["fired"].items() if name not in QUANTIZING)
    yield from (f"`{name}` fails" for name in run["failed"])


def _names(models: list[str]) -> str:
    return ", ".join(f"`{model}`" for model in models)
