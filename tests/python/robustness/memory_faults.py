"""Run by test_memory_faults.py in a process of its own: every allocation of the interpreter fails once.

Prints one line of JSON per case: how many failures there were, and what went wrong. The graph is made of plain Python
objects, since the protobuf implementation itself does not survive this. No call unpacks a list: Python 3.13 loses the
list that it makes for that, if it fails.
"""

from __future__ import annotations

import _testcapi  # type: ignore[import-not-found]
import contextvars
import gc
import json
import sys
from collections.abc import Callable
from typing import Any

from helpers.checks import is_sound
from onnxgraft import quant
from onnxgraft.abstract_transformation import AbstractTransformation, find_occurrences, nearest_miss
from onnxgraft.transform_utilities import external_data_folder


class Message:
    """Equal only to itself, since nodes are distinguished by identity."""

    def __init__(self, **fields: Any) -> None:
        self.__dict__.update(fields)


class Node:
    __slots__ = ("attribute", "domain", "input", "name", "op_type", "output")

    def __init__(self, op_type: str = "", inputs: str = "", output: str = "") -> None:
        self.op_type, self.name, self.domain = op_type, "", ""
        self.input, self.output, self.attribute = inputs.split(), output.split(), list[Any]()

    def CopyFrom(self, other: Node) -> None:  # noqa: N802
        """Like protobuf's."""
        self.op_type, self.name, self.domain = other.op_type, other.name, other.domain
        self.input[:], self.output[:], self.attribute[:] = other.input, other.output, other.attribute


class Nodes(list[Node]):
    """Has its new nodes ready: the interpreter itself loses memory when making an object fails."""

    def __init__(self) -> None:
        self.ready = [Node() for _ in range(20)]

    def add(self) -> Node:
        """Like protobuf's."""
        self.append(self.ready[-1])
        return self.ready.pop()


def graph_of(*lines: str, initializers: str = "", outputs: str = "") -> Message:
    """A line is an operator, its inputs, "->" and its outputs."""
    nodes = Nodes()
    for line in lines:
        left, right = line.split("->")
        operator, _, inputs = left.partition(" ")
        nodes.append(Node(operator, inputs, right))
    return Message(
        name="graph",
        node=nodes,
        initializer=[Message(name=name) for name in initializers.split()],
        output=[Message(name=name) for name in outputs.split()],
        input=[],
        value_info=[],
        sparse_initializer=[],
        quantization_annotation=[],
    )


def lines_of(graph: Any) -> list[str]:
    return [f"{n.op_type} {' '.join(n.input)} -> {' '.join(n.output)}" for n in graph.node]


PAIR = ["Conv:0,1i->2", "Relu:2->3"], ["#1:0->100", "#0:100,101i->3"]
LOST = ["Conv:0,1i->2", "Neg:2->3"], list[str]()
WRONG = ["Conv:0,1i->2", "Neg:2-3"], list[str]()
BEFORE = ["Conv x w -> a", "Relu a -> b", "Conv b w -> c", "Relu c -> d"]
method: Any = quant.QuantConvTransformation._on_replace_subgraph
find: Any = find_occurrences
miss: Any = nearest_miss


class Verdicts(AbstractTransformation):
    """Accepts or refuses as requested, call by call."""

    def __init__(self, *verdicts: bool) -> None:
        self.verdicts = verdicts

    def run(self, graph: Any) -> int:
        self.asked = 0
        return self._replace_all_isomorphic_sub_graphs(graph, PAIR[0], PAIR[1], shared=self)

    def _on_replace_subgraph(self, *_: object, **__: object) -> bool:
        self.asked += 1
        return self.verdicts[self.asked - 1]


def chain() -> Message:
    return graph_of(*BEFORE, initializers="w", outputs="d")


def folders() -> None:
    with external_data_folder("a"), external_data_folder("b"):
        repr(external_data_folder("c"))


def merging() -> Message:
    return graph_of("TesselQuant x -> q", "Conv q w -> c", "TesselQuant x -> r", "MaxPool r -> m", initializers="w")


CASES: dict[str, tuple[Callable[[], Any], Callable[[Any], object]]] = {
    # Which object is made first, and what is done with it.
    "accept": (chain, Verdicts(True, True).run),
    "refuse": (chain, Verdicts(False, False).run),
    "first only": (chain, Verdicts(True, False).run),
    "last only": (chain, Verdicts(False, True).run),
    "merge": (merging, quant.FuseTesselQuantAnyTransformation().apply),
    "find": (chain, lambda graph: find(graph, PAIR[0], PAIR[1])),
    "miss": (chain, lambda graph: miss(graph, LOST[0], LOST[1])),
    "notation": (chain, lambda graph: find(graph, WRONG[0], WRONG[1])),
    "arguments": (chain, lambda graph: find(graph, subgraph=PAIR[0], replacement=PAIR[1])),
    "wrong arguments": (chain, lambda graph: find(graph, PAIR[0], PAIR[1], other=1)),
    "binding": (quant.QuantConvTransformation, lambda made: made._on_replace_subgraph is None),
    "reflection": (lambda: method, lambda m: [repr(m), m.__annotations__, m.__defaults__, m.__reduce__()]),
    "folders": (contextvars.copy_context, lambda context: context.run(folders)),
}


def outcome_of(act: Callable[[Any], object], argument: Any) -> object:
    """The result, or the type of the first error."""
    try:
        return act(argument)
    except Exception as error:
        first: BaseException = error
        while first.__context__ is not None:
            first = first.__context__
        # The message of the interpreter's own loop if it cannot make the frame object of an error. A function that
        # fails without an error would give another message.
        return MemoryError if str(first) == "error return without exception set" else type(first)


def run(make: Callable[[], Any], act: Callable[[Any], object]) -> tuple[int, list[str]]:
    """How many failures there were, and what was wrong after them."""
    faults, unharmed, wrong = 0, 0, []
    usual = outcome_of(act, make())
    for fail_at in range(1, 5000):
        graph = make()
        _testcapi.set_nomemory(fail_at, fail_at + 1)
        try:
            outcome = outcome_of(act, graph)
        finally:
            _testcapi.remove_mem_hooks()
        if outcome is MemoryError:
            faults += 1
            unharmed = 0
        elif outcome != usual:
            wrong.append(f"allocation {fail_at}: {outcome!r} instead of {usual!r}")
        if make is chain:
            if not is_sound(graph, {"x"}):
                wrong.append(f"allocation {fail_at}: {lines_of(graph)}")
            verdicts = getattr(act, "__self__", None)
            # A callback that could not even be called counts as one that raised: its occurrence stays.
            if verdicts is not None and not verdicts.asked and lines_of(graph)[2:] != BEFORE[2:]:
                wrong.append(f"allocation {fail_at}: changed before the first callback: {lines_of(graph)}")
        unharmed += 1
        if unharmed == 200:
            break
    return faults, wrong


def main() -> None:
    for name, (make, act) in CASES.items():
        run(make, act)
        gc.collect()
        before = sys.getallocatedblocks()
        faults, wrong = run(make, act)
        gc.collect()
        lost = sys.getallocatedblocks() - before
        print(json.dumps({"case": name, "faults": faults, "wrong": wrong[:3], "lost": lost}), flush=True)


if __name__ == "__main__":
    main()
