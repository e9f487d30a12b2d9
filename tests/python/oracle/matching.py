"""All assignments of a pattern to a graph, in lexicographic order, and the greedy choice among them.

Brute force with pruning: pattern node 0 tries every graph node, then node 1, and so on. Conditions that need the whole
assignment are checked when it is complete.
"""

import itertools
from collections.abc import Collection, Iterable, Iterator
from dataclasses import dataclass, field

from onnx import GraphProto, NodeProto

from .names import body_reads, reads
from .notation import Pair, PatternNode

Links = dict[str, str]


@dataclass(frozen=True)
class Assignment:
    nodes: tuple[int, ...]
    links: Links = field(compare=False)

    def removed(self, pair: Pair) -> set[int]:
        return {index for k, index in enumerate(self.nodes) if k not in pair.kept}


def stripped(names: Iterable[str]) -> list[str]:
    """The names without the empty ones at the end."""
    backwards = itertools.dropwhile(lambda name: not name, reversed(list(names)))
    return list(backwards)[::-1]


class Table:
    """The graph at the start of a pass."""

    def __init__(self, graph: GraphProto) -> None:
        self.nodes: list[NodeProto] = list(graph.node)
        self.initializers = {t.name for t in graph.initializer}
        self.outputs = {v.name for v in graph.output}
        self.first_writer: dict[str, int] = {}
        self.readers: dict[str, set[int]] = {}
        self.body_uses: set[str] = set()
        self.reads = [reads(node) for node in self.nodes]
        for index, node in enumerate(self.nodes):
            for name in filter(None, node.output):
                self.first_writer.setdefault(name, index)
            for name in filter(None, node.input):
                self.readers.setdefault(name, set()).add(index)
            self.body_uses |= body_reads(node)

    def used_outside(self, name: str, inside: Collection[int]) -> bool:
        others = self.readers.get(name, set()) - set(inside)
        return bool(others) or name in self.body_uses or name in self.outputs


def _bind(table: Table, index: int, node: PatternNode, links: Links) -> Links | None:
    """The links with those of one more node, None if graph node `index` cannot play `node`."""
    candidate = table.nodes[index]
    inputs, outputs = stripped(candidate.input), stripped(candidate.output)
    if candidate.op_type != node.op or len(outputs) != 1 or table.first_writer[outputs[0]] != index:
        return None
    named = len(node.inputs)
    if len(inputs) != named and not (node.rest and len(inputs) > named):
        return None
    if any(name and name not in table.initializers for name in inputs[named:]):
        return None
    bound = dict(links)
    for link, name in zip(node.inputs, inputs[:named], strict=True):
        if not name or (link.initializer and name not in table.initializers):
            return None
        if bound.setdefault(link.id, name) != name:
            return None
    return bound if bound.setdefault(node.output, outputs[0]) == outputs[0] else None


def _extend(table: Table, pair: Pair, nodes: tuple[int, ...], links: Links) -> Iterator[Assignment]:
    if len(nodes) == len(pair.pattern):
        yield Assignment(nodes, links)
        return
    for index in range(len(table.nodes)):
        if index not in nodes:
            bound = _bind(table, index, pair.pattern[len(nodes)], links)
            if bound is not None:
                yield from _extend(table, pair, (*nodes, index), bound)


def _aliases_removed(pair: Pair, links: Links) -> bool:
    """True if a second id names a tensor that a removed node writes."""
    names = list(links.values())
    return any(names.count(links[n.output]) > 1 for k, n in enumerate(pair.pattern) if k not in pair.kept)


def _used_outside(table: Table, pair: Pair, found: Assignment) -> bool:
    for k, node in enumerate(pair.pattern):
        if k in pair.kept:
            continue
        vanishes = node.output not in pair.replacement_outputs
        inner = node.output in pair.pattern_reads
        if (vanishes or inner) and table.used_outside(found.links[node.output], found.nodes):
            return True
    return False


def _depends_on(tensor: str, reads_of: dict[str, set[str]]) -> set[str]:
    """All names that `tensor` is computed from by the given writers (tensor -> names read for it)."""
    seen: set[str] = set()
    todo = [tensor]
    while todo:
        for name in reads_of.get(todo.pop(), set()) - seen:
            seen.add(name)
            todo.append(name)
    return seen


def _closes_cycle(table: Table, pair: Pair, found: Assignment) -> bool:
    """True if a tensor would depend on an input of the occurrence that depends on the tensor itself."""
    links = {i: found.links.get(i, f"\0new {i}") for i in pair.ids}
    before = {links[n.output]: table.reads[found.nodes[k]] for k, n in enumerate(pair.pattern)}
    after: dict[str, set[str]] = {}
    sources = {links[i] for i in pair.pattern_reads - pair.pattern_outputs.keys()}
    for e in pair.replacement:
        named = {links[link.id] for link in e.node.inputs}
        if e.source is not None:
            matched = table.nodes[found.nodes[e.source]]
            sources |= body_reads(matched)
            named |= reads(matched) if e.kept else body_reads(matched)
        after[links[e.node.output]] = named
    old_outputs = [links[o] for o in pair.replacement_outputs & pair.pattern_outputs.keys()]
    now = {o: _depends_on(o, after) & sources for o in old_outputs}
    fresh = {o: now[o] - _depends_on(o, before) for o in old_outputs}
    if not any(fresh.values()):
        return False
    # The graph with a summary instead of the occurrence: every old output reads what it now depends on.
    around = dict(now)
    for name, writer in table.first_writer.items():
        if writer not in found.nodes:
            around[name] = table.reads[writer]
    return any(o in _depends_on(x, around) for o in old_outputs for x in fresh[o])


def all_assignments(table: Table, pair: Pair) -> list[Assignment]:
    return [
        found
        for found in _extend(table, pair, (), {})
        if not _aliases_removed(pair, found.links)
        and not _used_outside(table, pair, found)
        and not _closes_cycle(table, pair, found)
    ]


def clash(pair: Pair, one: Assignment, other: Assignment) -> bool:
    """True if one of them removes a node that the other uses."""
    return bool(one.removed(pair) & set(other.nodes) or other.removed(pair) & set(one.nodes))


def choose(pair: Pair, candidates: Iterable[Assignment], taken: Iterable[Assignment]) -> list[Assignment]:
    """The candidates in order, without those that clash with `taken` or with one chosen before."""
    settled = list(taken)
    chosen: list[Assignment] = []
    for candidate in candidates:
        if not any(clash(pair, candidate, other) for other in settled):
            settled.append(candidate)
            chosen.append(candidate)
    return chosen
