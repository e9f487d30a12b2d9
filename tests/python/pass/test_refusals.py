"""Callbacks that edit the node list and then refuse: no old node is lost."""

import random
from collections import Counter
from typing import Any

import pytest
from onnx import GraphProto

from helpers.graphs import random_graph
from helpers.pairs import random_pair
from helpers.small_graphs import graph_of
from onnxgraft.abstract_transformation import AbstractTransformation


class Editing(AbstractTransformation):
    """Adds, moves and removes nodes, and refuses."""

    def __init__(self, rng: random.Random, edits: tuple[str, ...]) -> None:
        self.rng, self.edits = rng, edits
        self.changed: Counter[bytes] = Counter()

    def _on_replace_subgraph(self, graph: GraphProto, *_: Any, **__: Any) -> bool:
        edit = self.rng.choice(self.edits)
        if edit == "add":
            place = self.rng.randint(0, len(graph.node))
            node = graph.node.add(op_type="Added", name=f"added {sum(self.changed.values())}", output=["added"])
            graph.node.insert(place, node)
            self.changed[node.SerializeToString()] += 2
        elif edit == "move":
            graph.node.sort(key=lambda _: self.rng.random())
        elif edit == "remove" and self.theirs:
            name = self.theirs.pop()
            for index in reversed([k for k, node in enumerate(graph.node) if node.name == name]):
                self.changed[graph.node[index].SerializeToString()] -= 1
                del graph.node[index]
        return False

    theirs: list[str]


def run(graph: GraphProto, pair: tuple[list[str], list[str]], rng: random.Random, edits: tuple[str, ...]) -> int:
    """Applies the pair and returns the number of calls. Whatever the callback did, the other nodes are still there."""
    transformation = Editing(rng, edits)
    for number in range(rng.randint(0, 2)):
        graph.node.add(op_type="Theirs", name=f"theirs {number}", input=["x"], output=[f"theirs {number}"])
    transformation.theirs = [node.name for node in graph.node if node.op_type == "Theirs"]
    before = Counter(node.SerializeToString() for node in graph.node)
    assert transformation._replace_all_isomorphic_sub_graphs(graph, *pair) == 0
    after = Counter(node.SerializeToString() for node in graph.node)
    difference = {node: count - before[node] for node, count in after.items() | before.items() if count != before[node]}
    assert Counter(after) - Counter(before) == +transformation.changed, (pair, difference)
    assert Counter(before) - Counter(after) == -transformation.changed, (pair, difference)
    return sum(map(abs, transformation.changed.values()))


@pytest.mark.parametrize("edits", [("add",), ("move",), ("remove", "none"), ("add", "move", "remove", "none")])
def test_all_nodes_come_back(edits: tuple[str, ...]) -> None:
    edited = 0
    for seed in range(400):
        rng = random.Random(seed)
        pair = random_pair(rng)
        edited += run(random_graph(rng, pair[0]), pair, rng, edits)
    assert edited or edits == ("move",)


def test_another_writer_that_was_there_before_is_no_reason() -> None:
    for lines in (["Relu x -> a", "Abs x -> a", "Neg a -> y"], ["Abs x -> a", "Relu x -> a", "Neg a -> y"]):
        graph = graph_of(lines, outputs=["y"])
        run(graph, (["Relu:0->1"], ["#0:0->1"]), random.Random(0), ("add",))
