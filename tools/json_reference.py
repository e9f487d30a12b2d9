"""Writes docs/reference/json.md: the output of `--json`, from the classes whose values are printed.

    python -m tools.json_reference [--check]

`mismatches` compares real output with the page's own description; a test does so for every command.
"""

from __future__ import annotations

import dataclasses
import functools
import re
import sys
import types
import typing
from collections.abc import Iterator
from pathlib import Path
from typing import Any

from onnxgraft.comparison import GraphDiff
from onnxgraft.explaining import NodeExplanation
from onnxgraft.inspection import Inspection
from onnxgraft.matching import Explanation, Match, PatternText
from onnxgraft.recipe_book import Recipe
from onnxgraft.report.records import SCHEMA_VERSION, Report
from onnxgraft.report.report_json import NOT_IN_JSON
from onnxgraft.verification import Accuracy, Verification
from tools import reference_page
from tools.field_texts import field_texts

PAGE = Path(__file__).resolve().parents[1] / "docs/reference/json.md"
INTRODUCTION = """# JSON output

What commands print with `--json`, and what `apply --report R.json` writes. `make docs` generates this page from the
classes whose values are printed; a test compares it with the real output of every command.

JSON lacks infinity and NaN: such a number is printed as `null`. A release can add fields, so a reader should ignore
fields that it does not know. A report file has a `schema_version`, which rises when old readers would misread it.
"""


@dataclasses.dataclass(frozen=True)
class Fields:
    """An object that a command builds itself, possibly around the fields of a class."""

    title: str
    named: tuple[tuple[str, Any, str], ...]
    also: type[Any] | None = None


_PAIR = Fields(
    "Pair",
    (
        ("pattern", list[str], "The nodes to find, in the [notation](notation.md)."),
        ("replacement", list[str], "What takes their place."),
    ),
)
_LISTED = Fields(
    "Listed transformation",
    (
        ("name", str, "Short name, as `-t` takes it."),
        ("class", str, "Name of the class."),
        ("module", str, "Module of the class."),
        ("prepared_for", str, "The networks that it was made for."),
        ("random", bool, "Whether it draws numbers at random if it is not given real ones."),
        ("patterns", int, "How many pairs of pattern and replacement it has."),
    ),
)
_RULE = Fields(
    "Listed rule",
    (
        ("name", str, "Name of the rule, as `-t` takes it."),
        ("summary", str, "What it replaces."),
        ("keeps_function", bool, "Whether the model computes the same afterwards."),
        ("pairs", (list, _PAIR), "Its patterns and their replacements."),
    ),
)
_SHOWN = Fields(
    "Shown transformation",
    (
        ("name", str, "Short name."),
        ("class", str, "Name of the class."),
        ("doc", str, "Docstring of the class."),
        ("pairs", (list, _PAIR), "Its patterns and their replacements."),
    ),
)
_TURN = Fields(
    "Explained transformation",
    (
        ("explanations", list[Explanation], "One for each pattern."),
        ("refusals", dict[str, int], "Reason of a refusal -> how often; empty if nothing matched."),
        ("error", str | None, "Why the transformation failed, if it did."),
    ),
)
_VERDICT = (
    ("verdict", str, "The outcome in one sentence."),
    ("passed", bool, "Whether the models agree, or are as close as wanted."),
)
_VERIFIED = Fields("Verified models", _VERDICT, Verification)
_MEASURED = Fields("Measured models", _VERDICT, Accuracy)
_INSPECTED = Fields(
    "Inspected model",
    (
        ("quantize_nodes", int, "How many quantize nodes the model has."),
        ("int8_share", float | None, "The share of the known multiply-adds that run on INT8, 0 to 1."),
    ),
    Inspection,
)
_DIFFERENCE = Fields(
    "Difference", (("is_empty", bool, "Whether the models are the same, apart from names and order."),), GraphDiff
)
_REPORT = Fields("Report file", (("schema_version", int, f"{SCHEMA_VERSION} in this release."),), Report)

# The command, and its output; a pair of list and description is an array.
OUTPUTS: dict[str, Any] = {
    "list --json": (list, _LISTED),
    "list --rules --json": (list, _RULE),
    "show NAME --json": _SHOWN,
    "recipes --json": list[Recipe],
    "find MODEL.onnx -t NAME --json": list[Match],
    "explain MODEL.onnx -t NAME --json": (list, _TURN),
    "explain MODEL.onnx --node NAME --json": list[NodeExplanation],
    "inspect MODEL.onnx --json": _INSPECTED,
    "inspect MODEL.onnx AFTER.onnx --json": (list, _INSPECTED),
    "verify BEFORE.onnx AFTER.onnx --json": _VERIFIED,
    "verify BEFORE.onnx AFTER.onnx --data DATA --per-tensor --json": _MEASURED,
    "diff BEFORE.onnx AFTER.onnx --json": _DIFFERENCE,
    "pattern MODEL.onnx --nodes NAME --json": PatternText,
    "apply MODEL.onnx --recipe NAME -o OUT.onnx --report R.json": _REPORT,
}
# The meaning of fields without an explanation in their class, since their names say it in Python.
_USUAL = {
    "account": "Which operators are INT8, and why the others are not.",
    "accepted": "Whether it was replaced; false if the transformation refused it.",
    "after": "In the model after.",
    "before": "In the model before.",
    "changes": "Nodes that both models have, with other attributes, inputs or outputs.",
    "class_name": "Name of the class.",
    "domain": "Operator domain; empty for standard ONNX operators.",
    "float": "Nodes in float.",
    "float_bytes": "Weight bytes of nodes in float.",
    "float_macs": "Multiply-adds of nodes in float.",
    "found": "Occurrences found.",
    "index": "Index in graph.node, if the node is still in the graph.",
    "initializers": "Initializers that differ.",
    "inputs": "Inputs: of a node its tensors; of a model name -> type and shape, or what differs.",
    "int8": "Nodes on INT8.",
    "int8_bytes": "Weight bytes of nodes on INT8.",
    "int8_macs": "Multiply-adds of nodes on INT8.",
    "ir_version": "IR version of the file.",
    "matches": "How often the pattern matches.",
    "model": "The file.",
    "name": "Its name.",
    "node_name": "Name of that node.",
    "node_texts": "Descriptions of the nodes.",
    "nodes": "How many nodes the graph has.",
    "nodes_after": "Nodes afterwards.",
    "nodes_before": "Nodes before.",
    "notes": "Remarks, as sentences.",
    "occurrences": "Each place where the pattern was found.",
    "op_type": "Operator.",
    "outputs": "Outputs: of a node its tensors; of a model name -> type and shape, or what differs.",
    "passed": "Whether the models agree, or are as close as wanted.",
    "pattern": "The nodes to find, in the [notation](notation.md).",
    "patterns": "One for each pair of pattern and replacement.",
    "prepared": "The steps of the preparation.",
    "producer": "The program that wrote the file.",
    "quantize_nodes": "The quantize nodes of the model after.",
    "refused": "Occurrences that the transformation refused.",
    "regions": "Connected nodes that differ.",
    "replaced": "Occurrences replaced.",
    "replacement": "What takes their place.",
    "round": "In which round it ran, from 1.",
    "rounds": "How many rounds ran.",
    "rows": "One for each output.",
    "runner": "What computed the models.",
    "runs": "How many sets of inputs were tried.",
    "samples": "How many samples were computed.",
    "seconds": "Wall time.",
    "seed": "Seed of the random numbers.",
    "steps": "One for each transformation and round.",
    "summary": "What it is for.",
    "sums": "The sums of operators on INT8.",
    "tensor": "The tensor concerned.",
    "text": "All of it in a sentence.",
    "transformation": "Short name of the transformation.",
    "transformations": "Short names, in the order in which they run.",
    "unknown_macs": "Nodes whose multiply-adds are not known.",
    "warnings": "Warnings, as sentences.",
    "weight_bytes": "Bytes of all initializers.",
    "weights": "How many initializers the model has.",
}
_PLAIN = {str: "string", int: "integer", float: "number or null", bool: "boolean", types.NoneType: "null"}


def page() -> str:
    """The whole page."""
    parts = [INTRODUCTION, "| Command | Prints |", "|---|---|"]
    parts += [f"| `onnxgraft {command}` | {_text(kind)} |" for command, kind in OUTPUTS.items()]
    waiting, shown = list(OUTPUTS.values()), []
    while waiting:
        kind = waiting.pop(0)
        if _is_object(kind) and kind not in shown:
            shown.append(kind)
            parts += ["", f"## {_title(kind)}", "", *_table(kind)]
        waiting[:0] = _parts(kind)
    return "\n".join(parts) + "\n"


def mismatches(value: Any, kind: Any, place: str = "output") -> Iterator[str]:
    """The differences between a value read from JSON and the description."""
    if _is_object(kind):
        known = {name: inner for name, inner, _ in _fields(kind)}
        if not isinstance(value, dict):
            yield f"{place} is not an object"
            return
        yield from (f"{place}.{name} is in one of the two only" for name in value.keys() ^ known.keys())
        for name in value.keys() & known.keys():
            yield from mismatches(value[name], known[name], f"{place}.{name}")
        return
    origin, inner = _split(kind)
    if origin is types.UnionType:
        if all(list(mismatches(value, one, place)) for one in inner):
            yield f"{place} is {value!r}, not {_text(kind)}"
    elif origin is dict:
        for name, element in value.items() if isinstance(value, dict) else [("", place)]:
            yield from mismatches(element, inner[1], f"{place}.{name}")
    elif origin is list:
        for number, element in enumerate(value) if isinstance(value, list) else [(0, value)]:
            yield from mismatches(element, inner[0], f"{place}[{number}]")
    elif origin is typing.Literal:
        yield from [] if value in inner else [f"{place} is {value!r}"]
    else:
        accepted = (int, float, types.NoneType) if kind is float else kind
        if not isinstance(value, accepted) or (isinstance(value, bool) and kind is not bool):
            yield f"{place} is {value!r}, not {_text(kind)}"


def _is_object(kind: Any) -> bool:
    return isinstance(kind, Fields) or dataclasses.is_dataclass(kind)


def _fields(kind: Any) -> list[tuple[str, Any, str]]:
    """Name, type and meaning of each field of an object."""
    if isinstance(kind, Fields):
        named = {name for name, _, _ in kind.named}
        return [*kind.named, *(one for one in (_fields(kind.also) if kind.also else []) if one[0] not in named)]
    texts, hints = field_texts(kind), _hints(kind)
    written = [field.name for field in dataclasses.fields(kind) if NOT_IN_JSON not in field.metadata]
    return [(name, hints[name], _meaning(name, texts)) for name in written]


def _meaning(name: str, texts: dict[str, str]) -> str:
    text = texts[name] or _USUAL[name]
    return re.sub(r"\bNone\b", "null", text[:1].upper() + text[1:] + ("" if text.endswith(".") else "."))


@functools.cache
def _hints(kind: Any) -> dict[str, Any]:
    # A field may have the name of a type, such as `float`: its own class must not be asked for that.
    return typing.get_type_hints(kind, localns={"float": float})


def _split(kind: Any) -> tuple[Any, tuple[Any, ...]]:
    if isinstance(kind, tuple):
        return kind[0], kind[1:]
    origin, inner = typing.get_origin(kind), typing.get_args(kind)
    if origin in (tuple, frozenset):
        origin = list
    return types.UnionType if origin is typing.Union else origin, inner


def _parts(kind: Any) -> list[Any]:
    if _is_object(kind):
        return [inner for _, one, _ in _fields(kind) for inner in (one, *_parts_of_type(one))]
    return _parts_of_type(kind)


def _parts_of_type(kind: Any) -> list[Any]:
    return [] if _is_object(kind) else [one for one in _split(kind)[1] if _is_object(one) or _split(one)[0]]


def _title(kind: Any) -> str:
    return kind.title if isinstance(kind, Fields) else f"{kind.__name__}"


def _text(kind: Any) -> str:
    if _is_object(kind):
        return f"[{_title(kind)}](#{_title(kind).lower().replace(' ', '-')})"
    origin, inner = _split(kind)
    if origin is types.UnionType:
        return " or ".join(dict.fromkeys(" or ".join(map(_text, inner)).split(" or ")))
    if origin is typing.Literal:
        return " or ".join(f'"{one}"' for one in inner)
    if origin is dict:
        return f"object, each value {_text(inner[1])}"
    return f"array of {_text(inner[0])}" if origin is list else _PLAIN[kind]


def _table(kind: Any) -> Iterator[str]:
    yield from ("| Field | Type | Meaning |", "|---|---|---|")
    for name, inner, text in _fields(kind):
        yield f"| `{name}` | {_text(inner)} | {text.replace('|', chr(92) + '|')} |"


if __name__ == "__main__":
    sys.exit(reference_page.run("json_reference", PAGE, page))
