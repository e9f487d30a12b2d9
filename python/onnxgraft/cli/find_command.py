"""`onnxgraft find`: where patterns match."""

from __future__ import annotations

import argparse
import json
from dataclasses import asdict

from rich import box
from rich.table import Table

from onnxgraft.cli import chosen, consoles, found_model
from onnxgraft.matching import find

NONE_FOUND = 4  # with `--fail-if-none`


def run(options: argparse.Namespace) -> int:
    """Shows each match with its nodes."""
    rows = chosen.rows(options)
    model = found_model.read(options)
    matches = [match for row in rows for match in find(model, row)]
    code = NONE_FOUND if options.fail_if_none and not matches else 0
    if options.json:
        consoles.say(json.dumps([asdict(match) for match in matches], indent=1))
        return code
    if options.count:
        consoles.say(str(len(matches)))
        return code
    table = Table("Transformation", "Pattern", "Nodes", box=box.SIMPLE)
    nodes = model.graph.node
    for match in matches:
        texts = (f"{index} {nodes[index].op_type} -> {', '.join(nodes[index].output)}" for index in match.nodes)
        table.add_row(match.transformation, str(match.pattern_index), "\n".join(texts))
    console = consoles.results()
    if matches:
        console.print(table)
    console.print(f"{len(matches)} match{'' if len(matches) == 1 else 'es'}")
    return code
