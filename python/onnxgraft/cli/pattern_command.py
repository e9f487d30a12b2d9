"""`onnxgraft pattern`: the pattern of nodes that a model has."""

from __future__ import annotations

import argparse
import json

import onnx
from onnx import AttributeProto, helper

from onnxgraft.cli import consoles, json_output
from onnxgraft.io import model_files
from onnxgraft.matching import PatternText, pattern_of
from onnxgraft.preparation import prepare

_QUOTED = json.JSONEncoder(ensure_ascii=False).encode  # a JSON string is a TOML string
_SIMPLE = (AttributeProto.INT, AttributeProto.INTS, AttributeProto.FLOAT, AttributeProto.FLOATS, AttributeProto.STRING)


def run(options: argparse.Namespace) -> int:
    """Prints the pattern; warnings go to standard error."""
    model = model_files.load(options.model)
    if options.prepare:
        prepare(model, folder=options.model.parent)
    text = pattern_of(model, options.nodes, start=options.start, end=options.end)
    if options.json:
        json_output.show(text)
        return 0
    for warning in text.warnings:
        consoles.error(f"warning: {warning}")
    consoles.say(_toml(text, model.graph) if options.toml else str(text))
    return 0


def _toml(text: PatternText, graph: onnx.GraphProto) -> str:
    """A rule that keeps everything, with the attributes of the nodes as conditions."""
    nodes = [graph.node[index] for index in text.nodes]
    lines = [
        "# The ids: " + ", ".join(f"{number} {name}" for number, name in text.links.items()),
        "[my_rule]",
        'summary = ""',
        "pattern = [",
        *(f"  {_QUOTED(string)}," for string in text.pattern),
        "]",
        'replacement = [  # "#0" keeps a node, "#0:1,2->3" copies it with other links, "Relu:1->2" is a new one',
        *(f'  "#{number}",' for number in range(len(nodes))),
        "]",
    ]
    for number, node in enumerate(nodes):
        values = {
            attribute.name: _value(helper.get_attribute_value(attribute))
            for attribute in node.attribute
            if attribute.type in _SIMPLE and attribute.name
        }
        if values:
            listed = ", ".join(f"{_QUOTED(name)} = {value}" for name, value in values.items())
            lines.append(f"where.{number}.attributes = {{ {listed} }}")
    return "\n".join(lines)


def _value(value: object) -> str:
    if isinstance(value, bytes):
        return _QUOTED(value.decode(errors="replace"))
    if isinstance(value, list):
        return "[" + ", ".join(map(_value, value)) + "]"
    return repr(value)
