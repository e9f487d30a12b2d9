"""`onnxgraft find`: where patterns match."""

from __future__ import annotations

import argparse

from onnxgraft.cli import chosen, consoles, found_model, json_output
from onnxgraft.cli.exit_codes import ExitCode
from onnxgraft.matching import find
from onnxgraft.text_table import table


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
    nodes = model.graph.node
    cells = []
    for match in matches:
        head: tuple[object, object] = (match.transformation, match.pattern_index)
        for index in match.nodes:
            cells.append((*head, index, nodes[index].op_type, ", ".join(nodes[index].output)))
            head = ("", "")
    if matches:
        headings = ("Transformation", "Pattern", "Node", "Operator", "Writes")
        consoles.say(table(headings, cells, names=(0, 3, 4), numbers=(1, 2)))
    consoles.say(f"{len(matches)} match{'' if len(matches) == 1 else 'es'}")
    return code
