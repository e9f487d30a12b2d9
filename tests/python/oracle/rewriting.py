"""One whole pass over a graph: find, splice, call back, restore the refused, try again, clean up.

The graph is rewritten as a whole after each step, so the objects in `graph.node` change all the time; `Pass.origins`
records which nodes a faithful implementation leaves alone. Callbacks may edit nodes and other fields of the graph, but
must not add, move or remove nodes.
"""

from collections.abc import Callable, Sequence
from copy import deepcopy
from typing import Any

from onnx import GraphProto, NodeProto

from .matching import Assignment, Table, all_assignments, choose
from .names import all_names, reads
from .notation import Entry, Pair, parse_pair
from .placing import Item, Occurrence, splice

Callback = Callable[[GraphProto, list[NodeProto], dict[int, int], dict[str, str]], object]


class Pass:
    """Runs one pair over one graph; an error of the callback leaves the graph as promised for errors."""

    def __init__(self, graph: GraphProto, pattern: Sequence[str], replacement: Sequence[str]) -> None:
        self.graph = graph
        self.pair: Pair = parse_pair(pattern, replacement)
        self.names = all_names(graph)
        self.items = [Item(deepcopy(node), index) for index, node in enumerate(graph.node)]
        self.order = list(self.items)
        self.accepted: list[tuple[Assignment, Occurrence, dict[str, str]]] = []

    @property
    def origins(self) -> list[int | None]:
        """For each node now in the graph its old index, None for new, copied and restored ones."""
        return [item.origin for item in self.order]

    def run(self, callback: Callback) -> int:
        candidates = all_assignments(Table(self.graph), self.pair)
        first_part = self.pair.first_part
        refused: set[tuple[int, ...]] = set()
        while True:
            taken = [assignment for assignment, _, _ in self.accepted]
            rest = [c for c in candidates if c not in taken and tuple(c.nodes[k] for k in first_part) not in refused]
            chosen = choose(self.pair, rest, taken)
            if not chosen:
                break
            refused |= {tuple(a.nodes[k] for k in first_part) for a in self._round(chosen, callback)}
        if self.accepted:
            self._clean_up()
        return len(self.accepted)

    def _round(self, chosen: list[Assignment], callback: Callback) -> list[Assignment]:
        """One round; the result is the list of refused occurrences."""
        made = [self._make(assignment) for assignment in chosen]
        before = self.order
        self._write(splice(self.pair, before, [occurrence for occurrence, _ in made]))
        refused: list[Assignment] = []
        stay: list[Occurrence] = []
        try:
            for assignment, (occurrence, links) in zip(chosen, made, strict=True):
                stay.append(occurrence)  # one that raises stays spliced too
                if self._call(callback, occurrence, links):
                    self.accepted.append((assignment, occurrence, links))
                else:
                    refused.append(assignment)
                    stay.pop()
        finally:
            for occurrence, _ in made:
                if occurrence not in stay:
                    for item in occurrence.removed:
                        item.origin = None
            self._write(splice(self.pair, before, stay))
        return refused

    def _make(self, assignment: Assignment) -> tuple[Occurrence, dict[str, str]]:
        matched = [self.items[index] for index in assignment.nodes]
        links = dict(assignment.links)
        for new in sorted(self.pair.ids - links.keys()):
            links[new] = self._fresh("tensor")
        made = []
        for position, entry in enumerate(self.pair.replacement):
            if entry.kept and entry.source is not None:
                made.append(matched[entry.source])
                continue
            node = NodeProto()
            if entry.source is not None:
                node.CopyFrom(matched[entry.source].node)
                name = self._copy_name(position, entry, matched)
                if node.name != name:  # an empty name that is set differs from a missing one
                    node.name = name
            else:
                node.op_type = entry.node.op
                node.name = self._fresh("node")
            del node.input[:], node.output[:]
            node.input.extend(links[link.id] for link in entry.node.inputs)
            node.output.append(links[entry.node.output])
            made.append(Item(node))
        removed = [item for k, item in enumerate(matched) if k not in self.pair.kept]
        return Occurrence(matched, made, removed), links

    def _copy_name(self, position: int, entry: Entry, matched: list[Item]) -> str:
        source = entry.source
        assert source is not None
        if source not in self.pair.kept:
            earlier = [e for e in self.pair.replacement[:position] if e.source == source]
            return self._fresh("node") if earlier else matched[source].node.name
        writer = self.pair.pattern_outputs.get(entry.node.output)
        if writer is None or writer in self.pair.kept | self.pair.copied:
            return self._fresh("node")
        return matched[writer].node.name

    def _fresh(self, kind: str) -> str:
        number = 0
        while f"fresh {kind} {number}" in self.names:
            number += 1
        self.names.add(f"fresh {kind} {number}")
        return f"fresh {kind} {number}"

    def _call(self, callback: Callback, occurrence: Occurrence, links: dict[str, str]) -> bool:
        place = {item: index for index, item in enumerate(self.order)}
        nodes = [
            item.node if item in occurrence.removed else self.graph.node[place[item]] for item in occurrence.matched
        ]
        mapping = {position: place[item] for position, item in enumerate(occurrence.made)}
        for k in range(len(occurrence.made), len(occurrence.matched)):
            if k in self.pair.kept:
                mapping[k] = place[occurrence.matched[k]]
        try:
            return bool(callback(self.graph, nodes, mapping, dict(links)))
        finally:
            for item, node in zip(self.order, self.graph.node, strict=True):
                item.node.CopyFrom(node)

    def _write(self, order: list[Item]) -> None:
        self.order = order
        del self.graph.node[:]
        self.graph.node.extend(item.node for item in order)

    def _clean_up(self) -> None:
        used = {v.name for v in self.graph.output}.union(*(reads(node) for node in self.graph.node))
        unused: set[str] = set()
        stale: set[str] = set()
        kept = self.pair.kept
        for _, occurrence, links in self.accepted:
            unused |= {name for item in occurrence.removed for name in reads(item.node)} - used
            for output, k in self.pair.pattern_outputs.items():
                vanished = output not in self.pair.replacement_outputs
                inner = output in self.pair.pattern_reads
                if k not in kept and (vanished or inner):
                    stale.add(links[output])
        unused &= {t.name for t in self.graph.initializer}
        _drop(self.graph.initializer, unused)
        _drop(self.graph.input, unused)
        _drop(self.graph.value_info, stale)


def _drop(field: Any, names: set[str]) -> None:
    """Removes the entries of these names from a repeated field."""
    for index in reversed(range(len(field))):
        if field[index].name in names:
            del field[index]
