"""`onnxgraft list`."""

from __future__ import annotations

import argparse

from rich import box
from rich.table import Table

from onnxgraft.catalogue import rows
from onnxgraft.cli import consoles
from onnxgraft.rules import RuleTransformation, library


def run(options: argparse.Namespace) -> int:
    """Shows a table of all transformations."""
    if options.rules:
        _show_rules()
        return 0
    table = Table("Name", "Class", "Prepared for", box=box.SIMPLE)
    table.add_column("Patterns", justify="right")
    for row in rows().values():
        table.add_row(row.name, row.cls.__name__, row.prepared_for, str(len(row.pairs)))
    consoles.results().print(table)
    return 0


def _show_rules() -> None:
    table = Table("Rule", "What it replaces", box=box.SIMPLE)
    table.add_column("Keeps the function")
    table.add_column("Pairs", justify="right")
    loaded = [row.cls for row in rows().values() if issubclass(row.cls, RuleTransformation)]
    for rule in (cls.rule for cls in (*library().values(), *loaded)):
        table.add_row(rule.name, rule.summary, "yes" if rule.keeps_function else "", str(len(rule.pairs)))
    consoles.results().print(table)
