"""The two graphs that a picture of a (pattern, replacement) pair shows."""

from __future__ import annotations

from collections.abc import Iterable, Sequence
from dataclasses import dataclass
from enum import Enum

from onnxgraft.catalogue import notation

# Names of an operator's initializer inputs, by position; one without a name shows only its id.
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


class State(Enum):
    """The fate of a node or an initializer."""

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


def read_pair(pattern: Sequence[str], replacement: Sequence[str]) -> tuple[Graph, Graph]:
    """The graph before and after.

    Raises:
        ValueError: The lists do not follow the notation.
    """
    old, entries = notation.read_pair(pattern, replacement)
    fates = {entry.source: State.COPIED for entry in entries}
    fates.update({entry.source: State.KEPT for entry in entries if entry.kept})
    constants_before, constants_after = _constants(old), _constants(entry.node for entry in entries)
    before = [_node(node, k, fates.get(k, State.REMOVED), constants_after, State.REMOVED) for k, node in enumerate(old)]
    after = []
    for node, source, kept in entries:
        state = State.NEW if source is None else State.KEPT if kept else State.COPIED
        after.append(_node(node, source, state, constants_before, State.NEW))
    return Graph(tuple(before)), Graph(tuple(after))


def _constants(nodes: Iterable[notation.PatternNode]) -> set[str]:
    return {link.id for node in nodes for link in node.inputs if link.initializer}


def _node(node: notation.PatternNode, number: int | None, state: State, others: set[str], otherwise: State) -> Node:
    """A box; an initializer that is not on the other side is in state `otherwise`."""
    names = INPUT_NAMES.get(node.op, ())
    constants = [
        Constant(
            names[position] if position < len(names) else "", link.id, State.KEPT if link.id in others else otherwise
        )
        for position, link in enumerate(node.inputs)
        if link.initializer
    ]
    if node.rest:
        constants.append(Constant("any", "", State.KEPT))
    data = tuple(link.id for link in node.inputs if not link.initializer)
    return Node(node.op, number, data, tuple(constants), node.output, state)
