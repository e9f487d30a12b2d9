"""Calls without foreign edits between them share what they read: passes of an apply, callbacks of a round.

The result has the same bytes as without sharing: after refusals, in one apply after another, in nested callbacks.
"""

import random
import zlib
from types import SimpleNamespace
from typing import Any

import numpy as np
import pytest
from onnx import GraphProto, TensorProto, helper, numpy_helper

from helpers.classes import CLASSES, class_graph
from helpers.graphs import random_graph
from helpers.pairs import random_pair
from helpers.small_graphs import graph_of
from onnxgraft import quant
from onnxgraft.abstract_transformation import AbstractTransformation, observed
from onnxgraft.graph.names import all_names

BASE = quant.AbstractPullUpTesselQuantTransformation
FAMILY = sorted(name for name, cls in CLASSES.items() if issubclass(cls, BASE))
SEEDS = 30


def outcome(transformation: Any, graph: GraphProto) -> str:
    np.random.seed(7)
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

    return type("Nesting", (CLASSES[name],), {"_on_replace_subgraph": callback, "seen": [], "answers": []})()


def walking(name: str) -> Any:
    """A subclass whose own callback calls the inherited one: it may change anything, so nothing is shared."""

    def callback(self: Any, *arguments: Any, **keywords: Any) -> Any:
        return super(cls, self)._on_replace_subgraph(*arguments, **keywords)

    cls: Any = type("Walking", (CLASSES[name],), {"_on_replace_subgraph": callback})
    return cls


@pytest.mark.parametrize("name", sorted(CLASSES))
def test_the_same_bytes(name: str) -> None:
    overriding = walking(name)
    alive: list[Any] = []  # keeps graphs alive, so that none gets the address of a dead one
    outcomes = set()
    for seed in range(SEEDS):
        graphs = [class_graph(name, seed) for _ in range(2)]
        alive += graphs
        for step in range(2):
            runs = [nesting(name, inner) if step else inner() for inner in (CLASSES[name], overriding)]
            alive += runs
            found = [outcome(run, graph) for run, graph in zip(runs, graphs, strict=True)]
            assert found[0] == found[1], (seed, step)
            assert graphs[0].SerializeToString() == graphs[1].SerializeToString(), (seed, step)
            outcomes.add(found[0])
        assert runs[0].answers == runs[1].answers, seed
        assert list(map(str, runs[0].seen)) == list(map(str, runs[1].seen)), seed
    assert "1" in outcomes
    assert "0" in outcomes or name not in FAMILY


@pytest.mark.parametrize("fail_at", range(3))
@pytest.mark.parametrize("name", FAMILY)
def test_what_waits_for_the_end_of_a_round_is_written_after_an_error(
    name: str, fail_at: int, monkeypatch: pytest.MonkeyPatch
) -> None:
    calls = 0

    def from_array(*arguments: Any) -> TensorProto:
        nonlocal calls
        calls += 1
        if calls > fail_at:
            raise KeyboardInterrupt
        return numpy_helper.from_array(*arguments)

    monkeypatch.setattr(quant, "numpy_helper", SimpleNamespace(from_array=from_array, to_array=numpy_helper.to_array))
    raised = 0
    for seed in range(SEEDS):
        results = []
        for cls in (CLASSES[name], walking(name)):
            calls, graph = 0, class_graph(name, seed)
            try:
                cls().apply(graph)
            except KeyboardInterrupt:
                raised += 1
            except ValueError:  # for a graph without the initializers that it reads
                pass
            results.append(graph.SerializeToString())
        assert results[0] == results[1], seed
    assert raised > 0


def deciding(known: frozenset[str]) -> AbstractTransformation:
    """Refuses some occurrences, although it promises to leave the graph alone."""
    transformation = AbstractTransformation()

    def decide(_: Any, *found: Any) -> bool:
        old = sorted(name for name in found[-1].values() if name in known)
        return zlib.crc32(repr(old).encode()) % 3 == 0

    vars(transformation)["_on_replace_subgraph"] = observed(transformation._on_replace_subgraph, decide)
    return transformation


def in_one_run(graph: GraphProto, pairs: list[tuple[list[str], list[str]]], *, refusing: bool) -> list[int]:
    """The replacements of the passes, which are the same without a run."""
    graphs = [graph, GraphProto.FromString(graph.SerializeToString())]
    counts: list[list[int]] = []
    known = frozenset(all_names(graph))
    for each in graphs:
        transformation = deciding(known) if refusing else AbstractTransformation()
        run: Any = AbstractTransformation._replace_all_isomorphic_sub_graphs
        if not counts:
            run = run.session(transformation, each)
        counts.append([run(transformation, each, *pair) for pair in pairs])
        del run
    assert counts[0] == counts[1], pairs
    assert graphs[0].SerializeToString() == graphs[1].SerializeToString(), pairs
    return counts[0]


@pytest.mark.parametrize("refusing", [False, True])
def test_passes_of_one_run_do_as_if_each_read_the_graph(refusing: bool) -> None:
    replaced = 0
    for seed in range(400):
        rng = random.Random(seed)
        pairs = rng.choices([random_pair(rng) for _ in range(2)], k=4)
        graph = random_graph(rng, pairs[0][0])
        replaced += sum(count > 0 for count in in_one_run(graph, pairs, refusing=refusing)) > 1
    assert replaced > 50


def test_names_in_a_body_stay_in_use_in_a_run() -> None:
    body = graph_of(["Relu b -> a_M"], outputs=["a_M"])
    graph = graph_of(["A x -> a", "B a -> b", "If c -> d"], outputs=["b", "d"])
    graph.node[2].attribute.append(helper.make_attribute("then_branch", body))
    assert in_one_run(graph, [(["A:0->1"], ["#0:0->1"]), (["B:0->1"], ["M:0->2", "#0:2->1"])], refusing=False)
