"""Reads a (pattern, replacement) pair into the two graphs that a picture shows.

The lists are taken from the classes, so they are valid; what a node becomes is told by the replacement alone.
"""

from __future__ import annotations

from collections.abc import Iterable, Sequence
from dataclasses import dataclass
from enum import Enum

# What the initializer inputs of an operator are called, by position; one without a name shows its id only.
INPUT_NAMES = {
    "Conv": ("x", "w", "b"),
    "Gemm": ("x", "w", "b"),
    "MatMul": ("x", "w"),
    "Add": ("b", "b"),
    "TesselDequant": ("x", "scale"),
    "BatchNormalization": ("x", "scale", "b", "mean", "var"),
    "Resize": ("x", "roi", "scales", "sizes"),
    "Slice": ("x", "starts", "ends", "axes"),
}
_REST = "~i"


class State(Enum):
    """What becomes of a node or an initializer."""

    KEPT = "stays as it is"
    COPIED = "copied with other links"
    REMOVED = "removed"
    NEW = "new"


@dataclass(frozen=True)
class Constant:
    """An initializer that a node reads; `id` is empty for the unnamed rest of its inputs."""

    name: str
    id: str
    state: State


@dataclass(frozen=True)
class Node:
    """One box: `number` is the position in the pattern, None for a new node."""

    op: str
    number: int | None
    inputs: tuple[str, ...]
    constants: tuple[Constant, ...]
    output: str
    state: State


@dataclass(frozen=True)
class Graph:
    """One side of a picture."""

    nodes: tuple[Node, ...]

    @property
    def sources(self) -> tuple[str, ...]:
        """Tensors from outside, in the order in which they are read first."""
        written = {node.output for node in self.nodes}
        return tuple(dict.fromkeys(link for node in self.nodes for link in node.inputs if link not in written))

    @property
    def results(self) -> tuple[str, ...]:
        """Tensors that no node here reads."""
        read = {link for node in self.nodes for link in node.inputs}
        return tuple(node.output for node in self.nodes if node.output not in read)


@dataclass(frozen=True)
class _Line:
    """One string: "Op:in,in->out", "#k:in,in->out" or "#k"."""

    head: str
    inputs: tuple[str, ...]
    output: str

    @staticmethod
    def read(text: str) -> _Line:
        head, _, links = text.partition(":")
        inputs, _, output = links.partition("->")
        return _Line(head, tuple(filter(None, inputs.split(","))), output)

    @property
    def number(self) -> int | None:
        return int(self.head[1:]) if self.head.startswith("#") else None


def read_pair(pattern: Sequence[str], replacement: Sequence[str]) -> tuple[Graph, Graph]:
    """The graph before and after."""
    old = [_Line.read(text) for text in pattern]
    new = [_Line.read(text) for text in replacement]
    kept = {line.number for line in new if not line.output}
    copied = {line.number for line in new if line.output}
    after = [(line, old[line.number] if line.number is not None and not line.output else line) for line in new]
    constants_after = _constants(line for _, line in after)
    constants_before = _constants(old)
    before = [
        _node(line.head, k, line, _fate(k, kept, copied), constants_after, State.REMOVED) for k, line in enumerate(old)
    ]
    result = []
    for entry, line in after:
        op = line.head if entry.number is None else old[entry.number].head
        state = State.NEW if entry.number is None else State.COPIED if entry.output else State.KEPT
        result.append(_node(op, entry.number, line, state, constants_before, State.NEW))
    return Graph(tuple(before)), Graph(tuple(result))


def _fate(number: int, kept: set[int | None], copied: set[int | None]) -> State:
    if number in kept:
        return State.KEPT
    return State.COPIED if number in copied else State.REMOVED


def _constants(lines: Iterable[_Line]) -> set[str]:
    return {link for line in lines for link in line.inputs if link.endswith("i")}


def _node(op: str, number: int | None, line: _Line, state: State, others: set[str], otherwise: State) -> Node:
    """A box; an initializer that the other side lacks is in state `otherwise`."""
    constants = []
    for position, link in enumerate(line.inputs):
        if link.endswith("i"):
            names = INPUT_NAMES.get(op, ())
            name = names[position] if position < len(names) else ""
            known = State.KEPT if link in others or link == _REST else otherwise
            constants.append(Constant("any", "", known) if link == _REST else Constant(name, link[:-1], known))
    data = tuple(link for link in line.inputs if not link.endswith("i"))
    return Node(op, number, data, tuple(constants), line.output, state)
