"""`onnxgraft find`: where patterns match."""

from __future__ import annotations

import argparse

from rich import box
from rich.table import Table

from onnxgraft.cli import chosen, consoles, found_model, json_output
from onnxgraft.cli.exit_codes import ExitCode
from onnxgraft.matching import find
from onnxgraft.texts import one_line


def run(options: argparse.Namespace) -> int:
    """Shows each match with its nodes."""
    rows = chosen.rows(options)
    model = found_model.read(options)
    matches = [match for row in rows for match in find(model, row)]
    code = ExitCode.UNCHANGED if options.fail_if_none and not matches else ExitCode.DONE
    if options.json:
        json_output.show(matches)
        return code
    if options.count:
        consoles.say(str(len(matches)))
        return code
    table = Table("Transformation", "Pattern", "Nodes", box=box.SIMPLE)
    nodes = model.graph.node
    for match in matches:
        texts = (f"{index} {nodes[index].op_type} -> {', '.join(nodes[index].output)}" for index in match.nodes)
        table.add_row(match.transformation, str(match.pattern_index), "\n".join(map(one_line, texts)))
    if matches:
        consoles.show(table)
    consoles.say(f"{len(matches)} match{'' if len(matches) == 1 else 'es'}")
    return code
