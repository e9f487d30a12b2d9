"""`onnxgraft inspect`: a model at a glance, or two side by side."""

from __future__ import annotations

import argparse
from pathlib import Path

from onnxgraft.cli import consoles, json_output
from onnxgraft.inspection import inspect


def run(options: argparse.Namespace) -> int:
    """Shows one screen."""
    found = [inspect(path, recipes=options.recipes and options.after is None) for path in _paths(options)]
    if options.json:
        plain = [one.to_dict() for one in found]
        json_output.show(plain[0] if options.after is None else plain)
    elif len(found) == 1:
        consoles.say(str(found[0]))
    else:
        consoles.say(found[0].beside(found[1]))
    return 0


def _paths(options: argparse.Namespace) -> list[Path]:
    return [options.model] if options.after is None else [options.model, options.after]
