"""`pattern_of`: writes some nodes of a graph as a pattern, in the notation."""

from __future__ import annotations

import difflib
from collections.abc import Iterable, Sequence
from dataclasses import dataclass, field

from onnx import GraphProto, NodeProto

from onnxgraft.errors import UnknownNameError, WrongUsageError
from onnxgraft.graph.surroundings import Surroundings, node_text
from onnxgraft.io.given import Readable
from onnxgraft.matching.subject import graph_of


class NoPatternError(WrongUsageError):
    """Nodes that the notation cannot describe; the message names the node and the reason."""


@dataclass(frozen=True)
class PatternText:
    """A pattern that finds the nodes that it was made from."""

    pattern: tuple[str, ...]
    nodes: tuple[int, ...]  # indices in graph.node, in the order of the pattern
    links: dict[str, str]  # id -> tensor name
    warnings: tuple[str, ...] = field(default=())

    def __str__(self) -> str:
        return " ".join(f'"{text}"' for text in self.pattern)


def pattern_of(
    model: Readable,
    nodes: Iterable[str] = (),
    *,
    start: str | None = None,
    end: str | None = None,
) -> PatternText:
    """Writes the pattern of some nodes of a graph, in their order in the graph.

    Args:
        model: The model, its graph, or the path of one.
        nodes: Names of the nodes. A node without a name goes by the name of the tensor that it writes.
        start: A tensor. With `end`, all nodes on paths from `start` to `end` are included too.
        end: A tensor that is computed from `start`.

    Returns:
        The pattern, the nodes and a name for each id. The warnings list the tensors between the nodes that are also
        used elsewhere, so that a replacement cannot remove them.

    Raises:
        UnknownNameError: No node or tensor has that name.
        NoPatternError: The notation cannot express a node, for instance one with two outputs; or no node was named.
    """
    graph = graph_of(model)
    surroundings = Surroundings(graph)
    chosen = {_index(graph, name) for name in nodes}
    if (start is None) != (end is None):
        raise NoPatternError("nodes between two tensors need both the start and the end")
    if start is not None and end is not None:
        chosen |= _between(graph, surroundings, start, end)
    if not chosen:
        raise NoPatternError("no node was named: a pattern needs at least one")
    return _Writer(graph, sorted(chosen)).write(surroundings)


class _Writer:
    def __init__(self, graph: GraphProto, chosen: Sequence[int]) -> None:
        self._graph = graph
        self._chosen = chosen
        self._initializers = {tensor.name for tensor in graph.initializer}
        self._written: set[str] = set()
        self._ids: dict[str, str] = {}

    def write(self, surroundings: Surroundings) -> PatternText:
        nodes = [self._graph.node[index] for index in self._chosen]
        for index, node in zip(self._chosen, nodes, strict=True):
            output = _output(self._graph, index)
            if output in self._written:
                raise NoPatternError(
                    f"two of the nodes write tensor '{output}': in a pattern each tensor has one writer"
                )
            self._written.add(output)
            if not node.op_type or ":" in node.op_type or node.op_type.split() != [node.op_type]:
                raise NoPatternError(f"{node_text(self._graph, index)}: the notation cannot express its operator")
        strings = tuple(self._string(node, index) for node, index in zip(nodes, self._chosen, strict=True))
        links = {number: name for name, number in self._ids.items()}
        return PatternText(strings, tuple(self._chosen), links, tuple(self._warnings(nodes, surroundings)))

    def _string(self, node: NodeProto, index: int) -> str:
        inputs = list(node.input)
        while inputs and not inputs[-1]:
            inputs.pop()
        words = []
        for position, name in enumerate(inputs):
            if name:
                words.append(self._id(name) + ("i" if self._is_constant(name) else ""))
                continue
            for later in inputs[position:]:
                if later and not self._is_constant(later):
                    raise NoPatternError(
                        f"{node_text(self._graph, index)} omits input {position} and reads '{later}' after it: '~i' "
                        "matches initializers and omitted inputs, to the end"
                    )
            words.append("~i")
            break
        return f"{node.op_type}:{','.join(words)}->{self._id(_output(self._graph, index))}"

    def _is_constant(self, name: str) -> bool:
        return name in self._initializers and name not in self._written

    def _id(self, name: str) -> str:
        return self._ids.setdefault(name, str(len(self._ids)))

    def _warnings(self, nodes: Sequence[NodeProto], surroundings: Surroundings) -> Iterable[str]:
        chosen, read = set(self._chosen), {name for node in nodes for name in node.input}
        for name in dict.fromkeys(name for node in nodes for name in node.output if name in read):
            outside = [index for index in surroundings.readers(name) if index not in chosen]
            body = surroundings.body_reader(name)
            where = [node_text(self._graph, index) for index in outside[:1]]
            if body is not None:
                where.append(f"a nested graph of {node_text(self._graph, body)}")
            if name in surroundings.outputs:
                where.append("the outputs of the graph")
            if where:
                yield f"tensor {self._ids[name]} ('{name}') is also used by {' and '.join(where)}: keep it"


def _output(graph: GraphProto, index: int) -> str:
    outputs = list(graph.node[index].output)
    while outputs and not outputs[-1]:
        outputs.pop()
    if len(outputs) != 1 or not outputs[0]:
        raise NoPatternError(f"{node_text(graph, index)} has {len(outputs)} outputs: a pattern has nodes with one")
    return outputs[0]


def _index(graph: GraphProto, name: str) -> int:
    by_name = [index for index, node in enumerate(graph.node) if node.name == name]
    if not by_name:
        by_name = [index for index, node in enumerate(graph.node) if name in node.output]
    if len(by_name) > 1:
        raise NoPatternError(f"{len(by_name)} nodes have the name '{name}': name the tensor that one writes")
    if not by_name or not name:
        known = [node.name for node in graph.node if node.name] + [out for node in graph.node for out in node.output]
        similar = difflib.get_close_matches(name, known, n=2, cutoff=0.6)
        hint = f"; did you mean {' or '.join(similar)}?" if similar else ""
        raise UnknownNameError(f"the graph has no node named '{name}', and none writes a tensor of that name{hint}")
    return by_name[0]


def _between(graph: GraphProto, surroundings: Surroundings, start: str, end: str) -> set[int]:
    places = {out: index for index, node in reversed(list(enumerate(graph.node))) for out in node.output if out}
    for name in (start, end):
        if name not in places and not surroundings.readers(name):
            raise UnknownNameError(f"the graph has no tensor '{name}'")
    forward: set[int] = set()
    todo = [start]
    while todo:
        for index in surroundings.readers(todo.pop()):
            if index not in forward:
                forward.add(index)
                todo += [name for name in graph.node[index].output if name]
    backward: set[int] = set()
    todo = [end]
    while todo:
        index = places.get(todo.pop(), -1)
        if index >= 0 and index not in backward:
            backward.add(index)
            if start not in graph.node[index].output:
                todo += [name for name in graph.node[index].input if name]
    found = forward & backward
    if not found:
        raise NoPatternError(f"'{end}' is not computed from '{start}'")
    return found
