"""The nodes of a graph before and after a change, as data for a map: texts and numbers, never nodes or tensors."""

from __future__ import annotations

from collections.abc import Iterable, Iterator, Mapping, Sequence
from dataclasses import dataclass, field
from functools import cached_property
from typing import Literal, NamedTuple

import onnx

from onnxgraft.graph.bodies import all_bodies, can_hold_bodies
from onnxgraft.report.account_records import COUNTED, RECURRENT

NodeKind = Literal["int8", "float", "quantize", "dequantize", "other"]
NodeFate = Literal["kept", "changed", "added", "removed"]

_QUANTIZE = frozenset({"TesselQuant", "QuantizeLinear", "DynamicQuantizeLinear"})
_DEQUANTIZE = frozenset({"TesselDequant", "DequantizeLinear"})
_INTEGER = frozenset({"QLinearConv", "QLinearMatMul", "ConvInteger", "MatMulInteger"})
_COMPUTING = frozenset({*COUNTED, *RECURRENT})


class NodeLine(NamedTuple):
    """The facts that a map needs of one node of one graph."""

    op_type: str
    name: str
    inputs: tuple[str, ...]  # those of its nested graphs included
    outputs: tuple[str, ...]
    kind: NodeKind


class NetworkNode(NamedTuple):
    """One node of a map."""

    op_type: str
    name: str
    output: str  # the first tensor that it writes
    kind: NodeKind
    fate: NodeFate

    @property
    def label(self) -> str:
        """Operator and name, or its output if it has no name."""
        return f"{self.op_type} '{self.name}'" if self.name else f"{self.op_type} (writes '{self.output}')"


@dataclass
class Network:
    """The nodes of the graph after the change and those that it removed, with the edges between them.

    Attributes:
        nodes: In graph order; a removed one before its follower.
        edges: (writer, reader), each once.
        of_before: For each node of the graph before, its index in `nodes`.
        of_after: The same for the graph after.
    """

    nodes: list[NetworkNode] = field(default_factory=list)
    edges: list[tuple[int, int]] = field(default_factory=list)
    of_before: list[int] = field(default_factory=list)
    of_after: list[int] = field(default_factory=list)

    def counts(self, what: Literal["kind", "fate"]) -> dict[str, int]:
        """How many nodes there are of each kind or fate; removed ones have no kind."""
        found: dict[str, int] = {}
        for node in self.nodes:
            if what == "fate" or node.fate != "removed":
                key = node.kind if what == "kind" else node.fate
                found[key] = found.get(key, 0) + 1
        return found


def node_lines(graph: onnx.GraphProto) -> list[NodeLine]:
    """The nodes of a graph as they are now."""
    int8 = {tensor.name for tensor in graph.initializer if tensor.data_type == onnx.TensorProto.INT8}
    return [_line(node, int8) for node in graph.node]


def _line(node: onnx.NodeProto, int8: set[str]) -> NodeLine:
    op, inputs = node.op_type, tuple(node.input)
    kind: NodeKind = "other"
    if op in _COMPUTING:
        weights = inputs if op == "MatMul" else inputs[1:2]
        kind = "float" if int8.isdisjoint(weights) else "int8"
    elif op in _QUANTIZE:
        kind = "quantize"
    elif op in _DEQUANTIZE:
        kind = "dequantize"
    elif op in _INTEGER:
        kind = "int8"
    if can_hold_bodies(op, node.domain):
        inputs += tuple({name for body in all_bodies(node) for inner in body.node for name in inner.input})
    return NodeLine(op, node.name, inputs, tuple(node.output), kind)


@dataclass(frozen=True, repr=False)
class GraphChange:
    """A graph before and after; matched and joined only when a map is drawn.

    `partner` and `changed` are as in `merged`; without them the nodes are matched by their outputs and by name.
    """

    before: Sequence[NodeLine]
    after: Sequence[NodeLine]
    partner: Mapping[int, int] | None = None
    changed: frozenset[int] = frozenset()

    @cached_property
    def network(self) -> Network:
        """The nodes of both."""
        if self.partner is None:
            return network_of(self.before, self.after)
        return merged(self.before, self.after, self.partner, self.changed)


def network_of(before: Sequence[NodeLine], after: Sequence[NodeLine]) -> Network:
    """The network of one graph before and after it was edited.

    A node is the same if it has the same operator and writes the same tensor or has the same name; it is changed if it
    reads or writes something else.
    """
    partner: dict[int, int] = {}  # after -> before
    changed: set[int] = set()
    taken: set[int] = set()
    for number, key in enumerate((_whole, _by_output, _by_name)):
        known: dict[object, list[int]] = {}
        for index in range(len(before) - 1, -1, -1):
            if index not in taken and (found := key(before[index])) is not None:
                known.setdefault(found, []).append(index)
        for index, line in enumerate(after):
            if index not in partner and (others := known.get(key(line))):
                partner[index] = others.pop()
                taken.add(partner[index])
                if number:
                    changed.add(index)
    return merged(before, after, partner, changed)


def _whole(line: NodeLine) -> object:
    return line[:4]


def _by_output(line: NodeLine) -> object:
    return (line.op_type, line.outputs[0]) if line.outputs else None


def _by_name(line: NodeLine) -> object:
    return (line.op_type, line.name) if line.name else None


def merged(
    before: Sequence[NodeLine], after: Sequence[NodeLine], partner: Mapping[int, int], changed: Iterable[int]
) -> Network:
    """The network of two graphs.

    Args:
        before: The nodes of one.
        after: Those of the other.
        partner: For nodes of `after`, the same node of `before`.
        changed: Those nodes of `after` that are not as they were.
    """
    network, changed = Network(), set(changed)
    _list_nodes(network, before, after, partner, changed)
    new = _edges(after, network.of_after)
    old = (
        edge
        for edge in _edges(before, network.of_before)
        if any(network.nodes[end].fate == "removed" for end in edge)
    )  # fmt: skip
    network.edges = list(dict.fromkeys([*new, *old]))
    return network


def _list_nodes(
    network: Network,
    before: Sequence[NodeLine],
    after: Sequence[NodeLine],
    partner: Mapping[int, int],
    changed: set[int],
) -> None:
    network.of_before, network.of_after = [-1] * len(before), [-1] * len(after)
    place_before, place_after = network.of_before, network.of_after
    kept = set(partner.values())
    removed = (index for index in range(len(before)) if index not in kept)
    waiting = next(removed, None)
    for index, line in enumerate(after):
        other = partner.get(index)
        while waiting is not None and other is not None and waiting < other:
            place_before[waiting] = _append(network, before[waiting], "removed")
            waiting = next(removed, None)
        fate: NodeFate = "added" if other is None else "changed" if index in changed else "kept"
        place_after[index] = _append(network, line, fate)
        if other is not None:
            place_before[other] = place_after[index]
    while waiting is not None:
        place_before[waiting] = _append(network, before[waiting], "removed")
        waiting = next(removed, None)


def _append(network: Network, line: NodeLine, fate: NodeFate) -> int:
    output = next(filter(None, line.outputs), "")
    network.nodes.append(NetworkNode(line.op_type, line.name, output, line.kind, fate))
    return len(network.nodes) - 1


def _edges(lines: Sequence[NodeLine], place: Sequence[int]) -> Iterator[tuple[int, int]]:
    writer = {name: index for index, line in enumerate(lines) for name in line.outputs if name}
    for index, line in enumerate(lines):
        for name in line.inputs:
            source = writer.get(name)
            if source is not None and source != index:
                yield place[source], place[index]
