"""Removes nodes that pass on one of their inputs from the data flow."""

from __future__ import annotations

from collections.abc import Mapping

from onnxgraft.preparation.workpiece import Workpiece


def bypass(workpiece: Workpiece, sources: Mapping[str, str]) -> int:
    """Makes the readers of each key read its value instead, and removes the nodes that write the keys.

    A node stays if the graph returns its output or a nested body reads it; its other readers are redirected.

    Returns:
        How many keys lost a reader or their node.
    """
    if not sources:
        return 0
    graph = workpiece.graph
    ends = {name: end for name in sources if (end := _end(sources, name)) is not None}
    leaving = ends.keys() - workpiece.kept_names()
    redirected = set()
    for node in graph.node:
        if any(name in ends for name in node.input):
            for position, name in enumerate(node.input):
                if name in ends:
                    redirected.add(name)
                    node.input[position] = ends[name]
    gone = {index for index, node in enumerate(graph.node) if node.output and node.output[0] in leaving}
    removed = {graph.node[index].output[0] for index in gone}
    read = {name for index in gone for name in graph.node[index].input}
    workpiece.remove_nodes(gone)
    workpiece.forget_values(removed)
    workpiece.drop_unread(read)
    return len(removed | redirected)


def _end(sources: Mapping[str, str], name: str) -> str | None:
    """The start of a chain; None for a ring."""
    seen = {name}
    while name in sources:
        name = sources[name]
        if name in seen:
            return None
        seen.add(name)
    return name
