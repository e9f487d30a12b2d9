"""`onnxgraft list`."""

from __future__ import annotations

import argparse
from typing import Any

from onnxgraft.catalogue import Transformation, rows
from onnxgraft.cli import consoles, json_output
from onnxgraft.rules import Rule, RuleTransformation, library
from onnxgraft.text_table import table


def run(options: argparse.Namespace) -> int:
    """Shows a table of all transformations."""
    if options.rules:
        _show_rules(as_json=options.json)
        return 0
    if options.json:
        json_output.show([_plain(row) for row in rows().values()])
        return 0
    cells = [(row.name, len(row.pairs), row.prepared_for) for row in rows().values()]
    classes = [row.cls.__name__ for row in rows().values()]
    consoles.say(table(("Name and class", "Patterns", "Prepared for"), cells, numbers=(1,), notes=classes))
    return 0


def _show_rules(*, as_json: bool) -> None:
    loaded = [row.cls for row in rows().values() if issubclass(row.cls, RuleTransformation)]
    rules: list[Rule] = [cls.rule for cls in (*library().values(), *loaded)]
    if as_json:
        json_output.show([_plain_rule(rule) for rule in rules])
        return
    cells = [(rule.name, len(rule.pairs), "yes" if rule.keeps_function else "no", rule.summary) for rule in rules]
    consoles.say(table(("Rule", "Pairs", "Exact", "What it replaces"), cells, names=(0, 2), numbers=(1,)))
    consoles.tell("Exact: the replacement keeps the function of the model.")


def _plain_rule(rule: Rule) -> dict[str, Any]:
    pairs = [{"pattern": pair.pattern, "replacement": pair.replacement} for pair in rule.pairs]
    return {"name": rule.name, "summary": rule.summary, "keeps_function": rule.keeps_function, "pairs": pairs}


def _plain(row: Transformation) -> dict[str, Any]:
    return {
        "name": row.name,
        "class": row.cls.__name__,
        "module": row.cls.__module__,
        "prepared_for": row.prepared_for,
        "random": row.randomizes,
        "patterns": len(row.pairs),
    }
