"""Nodes in any order -> each after the producers of its inputs."""

from __future__ import annotations

import heapq
import logging

from onnxgraft.graph.names import outer_reads
from onnxgraft.preparation.workpiece import Workpiece

LOG = logging.getLogger(__name__)


def sort_nodes(workpiece: Workpiece) -> int:
    """Sorts stably: among the nodes that may come next, the one that was first comes first.

    Returns:
        How many nodes came before one of their producers. A graph with a cycle, or with two producers of one tensor,
        stays as it is.
    """
    nodes = workpiece.graph.node
    producers: dict[str, int] = {}
    for index, node in enumerate(nodes):
        for name in filter(None, node.output):
            if producers.setdefault(name, index) != index:
                LOG.warning("nodes are not sorted: two of them write '%s'", name)
                return 0
    needs = []
    for node in nodes:
        reads = {*node.input, *outer_reads(node)} if node.attribute else set(node.input)
        needs.append({producers[name] for name in reads if name in producers})
    misplaced = sum(any(need >= index for need in wanted) for index, wanted in enumerate(needs))
    if not misplaced:
        return 0
    order = _order(needs)
    if len(order) < len(needs):
        LOG.warning("nodes are not sorted: %d of them form a cycle or depend on one", len(needs) - len(order))
        return 0
    places = [0] * len(order)
    for place, index in enumerate(order):
        places[index] = place
    remaining = iter(places)
    nodes.sort(key=lambda _: next(remaining))
    return misplaced


def _order(needs: list[set[int]]) -> list[int]:
    """Indices in topological order, without the nodes on a cycle or after one."""
    waiting = [len(wanted) for wanted in needs]
    readers: list[list[int]] = [[] for _ in needs]
    for index, wanted in enumerate(needs):
        for need in wanted:
            readers[need].append(index)
    ready = [index for index, count in enumerate(waiting) if not count]
    order = []
    while ready:
        index = heapq.heappop(ready)
        order.append(index)
        for reader in readers[index]:
            waiting[reader] -= 1
            if not waiting[reader]:
                heapq.heappush(ready, reader)
    return order
