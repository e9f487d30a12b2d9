"""Faults of a graph, independent of who made it: double writers, dangling inputs, order, names.

A problem is an identifier and a sentence. The difference of the problems before and after a run is the effect of the
run.
"""

from __future__ import annotations

from collections import Counter
from collections.abc import Callable, Iterable, Iterator

from onnx import GraphProto

from onnxgraft.graph.names import defined_in_bodies, reads, sources

Problem = tuple[str, str]


def problems(graph: GraphProto) -> dict[str, list[str]]:
    """Sentences by identifier."""
    found: dict[str, list[str]] = {}
    for identifier, rule in _RULES.items():
        if sentences := list(rule(graph)):
            found[identifier] = sentences
    return found


def new_problems(before: GraphProto, after: GraphProto, *, faulted: bool = False) -> Iterator[Problem]:
    """The problems that `after` has and `before` has not.

    After an exception of a callback, initializers that it had not made yet may be missing: `faulted` accepts names that
    `before` did not have.
    """
    old = problems(before)
    known = {name for node in before.node for name in (*node.input, *node.output)} | sources(before)
    for identifier, sentences in problems(after).items():
        for sentence in sentences:
            excused = faulted and identifier == "dangling" and not any(f"'{name}'" in sentence for name in known)
            if sentence not in old.get(identifier, ()) and not excused:
                yield identifier, sentence
    yield from _changed_signature(before, after)


def _changed_signature(before: GraphProto, after: GraphProto) -> Iterator[Problem]:
    outputs = [[value.SerializeToString() for value in graph.output] for graph in (before, after)]
    if outputs[0] != outputs[1]:
        yield "signature", "the outputs of the graph were changed"
    # When an initializer has lost its last reader, an input of the same name goes with it.
    optional = {tensor.name for tensor in before.initializer}
    inputs = [
        [value.SerializeToString() for value in graph.input if value.name not in optional] for graph in (before, after)
    ]
    if inputs[0] != inputs[1]:
        yield "signature", "the inputs of the graph were changed"


def _twice(names: Iterable[str]) -> list[str]:
    return [name for name, count in Counter(names).items() if count > 1 and name]


def _writers(graph: GraphProto) -> Iterator[str]:
    written = [name for node in graph.node for name in node.output]
    for name in _twice(written):
        yield f"two nodes write '{name}'"
    given = sources(graph)
    for name in dict.fromkeys(written):
        if name in given:
            yield f"a node writes '{name}', which is an input or an initializer of the graph"
    for name in _twice(tensor.name for tensor in graph.initializer):
        yield f"there are two initializers '{name}'"


def _dangling(graph: GraphProto) -> Iterator[str]:
    there = sources(graph) | {name for node in graph.node for name in node.output}
    for node in graph.node:
        for name in sorted(reads(node) - there):
            yield f"{node.op_type} '{node.name}' reads '{name}', which does not exist"
    for value in graph.output:
        if value.name not in there:
            yield f"nothing computes the graph output '{value.name}'"


def _order(graph: GraphProto) -> Iterator[str]:
    later = {name for node in graph.node for name in node.output if name}
    for node in graph.node:
        for name in sorted(reads(node) & later):
            yield f"{node.op_type} '{node.name}' comes before the node that writes its input '{name}'"
        later -= set(node.output)


def _node_names(graph: GraphProto) -> Iterator[str]:
    for name in _twice(node.name for node in graph.node):
        yield f"two nodes are named '{name}'"


def _shadowed(graph: GraphProto) -> Iterator[str]:
    inner = defined_in_bodies(graph)
    for name in sorted(inner & (sources(graph) | {name for node in graph.node for name in node.output})):
        yield f"'{name}' is also defined in a nested graph"


def _unread(graph: GraphProto) -> Iterator[str]:
    read = {name for node in graph.node for name in reads(node)} | {value.name for value in graph.output}
    for tensor in graph.initializer:
        if tensor.name not in read:
            yield f"nothing reads the initializer '{tensor.name}'"


_RULES: dict[str, Callable[[GraphProto], Iterator[str]]] = {
    "writers": _writers,
    "dangling": _dangling,
    "order": _order,
    "node names": _node_names,
    "names": _shadowed,
    "unread": _unread,
}
