"""A difference in lines of text."""

from __future__ import annotations

from collections.abc import Sequence

from onnxgraft.comparison.result import GraphDiff, Region, ValueChange
from onnxgraft.report.records import NodeText
from onnxgraft.texts import one_line

_MOST = 12  # lines of one kind


def summary(difference: GraphDiff) -> str:
    """The counts, then the differences, in at most a dozen lines of each kind."""
    if difference.is_empty:
        return f"no difference: {difference.nodes_before} nodes each"
    return "\n".join(
        one_line(line)
        for line in (
            counts(difference),
            *difference.model,
            *_listed([f"input {change}" for change in difference.inputs]),
            *_listed([f"output {change}" for change in difference.outputs]),
            *_listed([f"region {k}: {headline(region)}" for k, region in enumerate(difference.regions, 1)]),
            *([f"initializers: {kinds(difference.initializers)}"] if difference.initializers else []),
            *_listed([f"initializer {change}" for change in difference.initializers]),
        )
    )


def counts(difference: GraphDiff) -> str:
    """One line of numbers."""
    regions = difference.regions
    changed = sum(len(region.changes) for region in regions)
    removed, added = sum(len(region.removed) for region in regions), sum(len(region.added) for region in regions)
    groups = "1 region" if len(regions) == 1 else f"{len(regions)} regions"
    operators = ", ".join(
        f"{name} {second - first:+d}" for name, (first, second) in sorted(difference.operators.items())
    )
    return (
        f"{difference.nodes_before} -> {difference.nodes_after} nodes: {removed} removed, {added} added, "
        f"{changed} changed in {groups}, {difference.unchanged} unchanged" + (f" ({operators})" if operators else "")
    )


def headline(region: Region) -> str:
    """A short description of a region's change."""
    changed = tuple(change.after for change in region.changes)
    parts = [("changed", changed), ("removed", region.removed), ("added", region.added)]
    return "; ".join(f"{what} {_nodes(nodes)}" for what, nodes in parts if nodes)


def kinds(changes: Sequence[ValueChange]) -> str:
    """How many are added, removed and changed."""
    added = sum(change.before is None for change in changes)
    removed = sum(change.after is None for change in changes)
    return f"{added} added, {removed} removed, {len(changes) - added - removed} changed"


def _nodes(nodes: Sequence[NodeText]) -> str:
    if len(nodes) == 1:
        node = nodes[0]
        return f"{node.op_type} '{node.name or next(iter(node.outputs), '')}'"
    found: dict[str, int] = {}
    for node in nodes:
        found[node.op_type] = found.get(node.op_type, 0) + 1
    return ", ".join(name if count == 1 else f"{count} {name}" for name, count in found.items())


def _listed(lines: Sequence[str]) -> list[str]:
    more = len(lines) - _MOST
    kind = lines[0].partition(" ")[0] if lines else ""
    return [*lines[:_MOST], *([f"... and {more} more {kind}{'s' if more > 1 else ''}"] if more > 0 else [])]
