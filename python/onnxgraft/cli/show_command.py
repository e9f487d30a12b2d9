"""`onnxgraft show NAME`: the patterns of a transformation, drawn."""

from __future__ import annotations

import argparse
import inspect

from onnxgraft.catalogue import find_row
from onnxgraft.cli import consoles, json_output
from onnxgraft.drawing.terminal import draw_pair


def run(options: argparse.Namespace) -> int:
    """Draws each pattern with its replacement."""
    row = find_row(options.name)
    doc = inspect.getdoc(row.cls) or "no doc string"
    if options.json:
        pairs = [{"pattern": pattern, "replacement": replacement} for pattern, replacement in row.pairs]
        json_output.show({"name": row.name, "class": row.cls.__name__, "doc": doc, "pairs": pairs})
        return 0
    consoles.tell(f"{row.name} ({row.cls.__name__}): {doc}")
    for number, (pattern, replacement) in enumerate(row.pairs):
        consoles.say(f"\nPattern {number}\n")
        consoles.say(draw_pair(pattern, replacement))
    return 0
