"""`Identity` -> its readers read what it reads."""

from __future__ import annotations

from onnxgraft.preparation.workpiece import Workpiece, is_standard


def resolve_identities(workpiece: Workpiece) -> int:
    """Redirects the readers; the node stays where the graph returns its output or a nested body reads it."""
    graph, kept = workpiece.graph, workpiece.kept_names()
    source = {
        node.output[0]: node.input[0]
        for node in graph.node
        if is_standard(node, "Identity") and len(node.input) == 1 and len(node.output) == 1
        if node.input[0] and node.output[0]
    }
    ends = {name: end for name in source if (end := _end(source, name)) is not None}
    leaving = ends.keys() - kept
    redirected = set()
    for node in graph.node:
        if any(name in ends for name in node.input):
            for position, name in enumerate(node.input):
                if name in ends:
                    redirected.add(name)
                    node.input[position] = ends[name]
    gone = {
        index
        for index, node in enumerate(graph.node)
        if is_standard(node, "Identity") and node.output and node.output[0] in leaving
    }
    removed = {graph.node[index].output[0] for index in gone}
    workpiece.remove_nodes(gone)
    workpiece.forget_values(removed)
    return len(removed | redirected)


def _end(source: dict[str, str], name: str) -> str | None:
    """Where a chain begins; None for a ring."""
    seen = {name}
    while name in source:
        name = source[name]
        if name in seen:
            return None
        seen.add(name)
    return name
