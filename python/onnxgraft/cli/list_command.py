"""`onnxgraft list`."""

from __future__ import annotations

import argparse
from typing import Any

from rich import box
from rich.table import Table

from onnxgraft.catalogue import Transformation, rows
from onnxgraft.cli import consoles, json_output
from onnxgraft.rules import Rule, RuleTransformation, library
from onnxgraft.texts import one_line


def run(options: argparse.Namespace) -> int:
    """Shows a table of all transformations."""
    if options.rules:
        _show_rules(as_json=options.json)
        return 0
    if options.json:
        json_output.show([_plain(row) for row in rows().values()])
        return 0
    table = Table("Name", "Class", "Prepared for", box=box.SIMPLE)
    table.add_column("Patterns", justify="right")
    for row in rows().values():
        table.add_row(*map(one_line, (row.name, row.cls.__name__, row.prepared_for, len(row.pairs))))
    consoles.show(table)
    return 0


def _show_rules(*, as_json: bool) -> None:
    loaded = [row.cls for row in rows().values() if issubclass(row.cls, RuleTransformation)]
    rules: list[Rule] = [cls.rule for cls in (*library().values(), *loaded)]
    if as_json:
        json_output.show([_plain_rule(rule) for rule in rules])
        return
    table = Table("Rule", "What it replaces", box=box.SIMPLE)
    table.add_column("Keeps the function")
    table.add_column("Pairs", justify="right")
    for rule in rules:
        cells = (rule.name, rule.summary, "yes" if rule.keeps_function else "", len(rule.pairs))
        table.add_row(*map(one_line, cells))
    consoles.show(table)


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
