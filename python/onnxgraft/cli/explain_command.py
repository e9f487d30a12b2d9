"""`onnxgraft explain`: why patterns do not match, or matches are refused.

Each transformation is examined at its turn, after those before it have been applied, in memory.
"""

from __future__ import annotations

import argparse
from collections import Counter
from collections.abc import Mapping
from dataclasses import dataclass, field

import onnx

from onnxgraft.catalogue import Transformation
from onnxgraft.cli import chosen, consoles, found_model, json_output
from onnxgraft.errors import WrongUsageError
from onnxgraft.explaining import NodeExplanation, Turns, explain, explain_in_turn
from onnxgraft.matching import Explanation
from onnxgraft.recipe_book import Recipe
from onnxgraft.texts import one_line

_BEST = 3  # answers shown for a node


@dataclass(frozen=True)
class _Turn:
    """The matches and refusals of one transformation."""

    explanations: list[Explanation]
    refusals: Mapping[str, int] = field(default_factory=dict)  # reason -> how often
    error: str | None = None


def run(options: argparse.Namespace) -> int:
    """Shows for each pattern how far the best attempt got and what stopped it, and why matches were refused."""
    if not (options.node or options.transformation or options.recipe or options.pattern):
        raise WrongUsageError("nothing to explain: give -t, --recipe or --pattern, or --node for single nodes")
    if options.all and not options.node:
        raise WrongUsageError("--all needs --node")
    rows = chosen.rows(options)
    recipe = chosen.recipe(options)
    model = found_model.read(options)
    if options.node:
        return _explain_nodes(model, rows, options, recipe)
    steps = Turns(model, options.model.parent, *_left_out(recipe))
    turns = [_take(model, row, steps) for row in rows]
    if options.json:
        json_output.show(turns)
        return 0
    for turn in turns:
        for explanation in turn.explanations:
            consoles.tell(_text(explanation))
        for reason, count in turn.refusals.items():
            consoles.tell(f"  refused: {count}, {one_line(reason)}")
        if turn.error is not None:
            consoles.tell(f"  fails: {one_line(turn.error)}")
    return 0


def _explain_nodes(
    model: onnx.ModelProto, rows: list[Transformation], options: argparse.Namespace, recipe: Recipe | None
) -> int:
    best, folder = None if options.all else _BEST, options.model.parent
    if rows:
        exclude, only = _left_out(recipe)
        nodes = explain_in_turn(model, rows, options.node, best=best, folder=folder, exclude=exclude, only=only)
    else:
        nodes = explain(model, node=options.node, best=best, folder=folder)
    if options.json:
        json_output.show(nodes)
        return 0
    for node in nodes:
        consoles.tell(_node_text(node))
    return 0


def _node_text(node: NodeExplanation) -> str:
    lines = [f"{one_line(node.label)}, node {node.node}:"]
    if node.in_float is not None:
        lines.append(f"  stays in float: {one_line(node.in_float)}")
    if not node.answers:
        lines.append(f"  none of the patterns has an operator {one_line(node.op_type)}")
    for answer in node.answers:
        lines.append(f"  {answer.transformation}, pattern {answer.pattern_index} {list(answer.pattern)}:")
        place = f"as node {answer.pattern_node} of it: " if len(answer.pattern) > 1 else ""
        lines.append(f"    {place}{one_line(answer.text)}")
        if answer.hint:
            lines.append(f"    hint: {one_line(answer.hint)}")
    if node.left_out:
        lines.append(f"  {node.left_out} more: --all")
    return "\n".join(lines)


def _left_out(recipe: Recipe | None) -> tuple[tuple[str, ...], tuple[str, ...]]:
    """The `exclude` and `only` of a recipe."""
    return ((), ()) if recipe is None else (recipe.exclude, recipe.only)


def _take(model: onnx.ModelProto, row: Transformation, turns: Turns) -> _Turn:
    explanations = explain(model, row)
    if not any(explanation.matches for explanation in explanations):
        return _Turn(explanations)
    step = turns.run(row)
    occurrences = (occurrence for pattern in step.patterns for occurrence in pattern.occurrences)
    reasons = Counter(item.reason or "no reason given" for item in occurrences if not item.accepted)
    return _Turn(explanations, reasons, step.error)


def _text(explanation: Explanation) -> str:
    lines = [f"{explanation.transformation}, pattern {explanation.pattern_index} {list(explanation.pattern)}:"]
    if explanation.matches:
        lines.append(f"  matches: {explanation.matches}")
    else:
        lines.append(f"  no match: {one_line(explanation.text)}")
    if explanation.hint:
        lines.append(f"  hint: {one_line(explanation.hint)}")
    return "\n".join(lines)
