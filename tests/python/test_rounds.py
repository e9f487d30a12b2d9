"""The pull-up family looks readers and names up in what the callbacks of a round share; a subclass's callbacks walk.

Both leave the same bytes: after refusals, in one apply after the other, inside of each other's callbacks, and on a
graph that was edited in between.
"""

import random
from typing import Any

import numpy as np
import pytest
from onnx import GraphProto, helper, numpy_helper

from helpers.classes import CLASSES, class_graph
from onnxgraft import quant
from onnxgraft.abstract_transformation import AbstractTransformation

BASE = quant.AbstractPullUpTesselQuantTransformation
FAMILY = sorted(name for name, cls in CLASSES.items() if issubclass(cls, BASE))
SEEDS = 30


def outcome(transformation: Any, graph: GraphProto) -> str:
    try:
        with np.errstate(all="ignore"):
            return str(transformation.apply(graph))
    except Exception as error:
        return repr(error)


def nesting(name: str, inner: Any) -> Any:
    """A subclass whose callback applies `inner` to a graph of its own and, in the first call, to the graph itself."""

    def callback(self: Any, graph: GraphProto, *rest: Any, **keywords: Any) -> bool:
        self.seen.append(class_graph(name, len(self.seen)))
        self.answers += [outcome(inner(), other) for other in ([graph] if len(self.seen) == 1 else []) + self.seen[-1:]]
        return bool(CLASSES[name]._on_replace_subgraph(self, graph, *rest, **keywords))

    return type("Nesting", (CLASSES[name],), {"_on_replace_subgraph": callback})()


def edit(rng: random.Random, graph: GraphProto) -> None:
    """As many nodes as before, with other convolutions among them."""
    outputs = [output for node in graph.node for output in node.output if output]
    weight = numpy_helper.from_array(np.ones((2, 1, 1, 1), np.int8), f"weight_{len(graph.initializer)}")
    graph.initializer.append(weight)
    for node in rng.sample(list(graph.node), min(2, len(graph.node))):
        if rng.random() < 0.5:
            node.CopyFrom(helper.make_node("Conv", [rng.choice(outputs), weight.name], list(node.output)))
        else:
            node.input[:] = [rng.choice([*outputs, name]) for name in node.input]


def test_only_the_built_in_callbacks_share() -> None:
    shared = [getattr(cls, "_on_replace_subgraph").begin_round(GraphProto()) for cls in (BASE, AbstractTransformation)]  # noqa: B009
    assert shared[0] is not None
    assert shared[1] is None


@pytest.mark.parametrize("name", FAMILY)
def test_the_same_bytes(name: str) -> None:
    walking = type("Walking", (CLASSES[name],), {})
    alive: list[Any] = []  # no graph comes to the address of a dead one
    outcomes = set()
    for seed in range(SEEDS):
        graphs = [class_graph(name, seed) for _ in range(2)]
        alive += graphs
        for step in range(4):
            nested = [nesting(name, inner) for inner in (CLASSES[name], walking)] if step == 1 else []
            alive += nested
            runs = nested or [CLASSES[name](), walking()]
            for transformation in nested:
                transformation.seen, transformation.answers = [], []
            found = [outcome(run, graph) for run, graph in zip(runs, graphs, strict=True)]
            assert found[0] == found[1], (seed, step)
            assert graphs[0].SerializeToString() == graphs[1].SerializeToString(), (seed, step)
            outcomes.add(found[0])
            if nested:
                assert nested[0].answers == nested[1].answers, seed
                assert list(map(str, nested[0].seen)) == list(map(str, nested[1].seen)), seed
            for graph in graphs:
                edit(random.Random(f"{seed} {step}"), graph)
    assert {"0", "1"} <= outcomes
