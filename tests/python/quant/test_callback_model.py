"""Every class on random graphs around its patterns, against the slow model of the matcher and of its callback.

ONNXGRAFT_RANDOM_CALLBACKS sets the number of graphs per class; a failure names the seed, and `check(name, seed)`
repeats it alone.
"""

import os
import random
from collections.abc import Callable
from functools import partial
from itertools import groupby
from typing import Any

import numpy as np
import pytest
from onnx import GraphProto, NodeProto
from onnx.printer import to_text

from helpers.furnished import furnished_graph
from onnxgraft import catalogue, transform_utilities
from onnxgraft.graph.names import all_names
from oracle import callbacks
from oracle.callbacks import CALLBACKS
from oracle.compare import Renaming, difference, serialized
from oracle.matching import Table, all_assignments
from oracle.notation import parse_pair
from oracle.rewriting import Pass

GRAPHS = int(os.environ.get("ONNXGRAFT_RANDOM_CALLBACKS", "60"))
MOST_ASSIGNMENTS = 40


def expected_apply(name: str, graph: GraphProto) -> int:
    """The class's passes in order, by the slow model."""
    corrected: set[str] = set()
    callback = CALLBACKS[name]

    def with_names(graph: GraphProto, nodes: list[NodeProto], mapping: dict[int, int], links: dict[str, str]) -> bool:
        return callback(graph, nodes, mapping, links, corrected)

    pairs = catalogue.find_row(name).pairs
    return sum(Pass(graph, pattern, replacement).run(with_names) for pattern, replacement in pairs)


def outcome(run: Callable[[], int]) -> tuple[int | type[Exception], float]:
    """The result or error of `run`, and the next number of the generator: a refused occurrence draws nothing."""
    np.random.seed(7)
    try:
        with np.errstate(all="ignore"):
            result: int | type[Exception] = run()
    except Exception as error:
        result = type(error)
    return result, np.random.rand()


# Keeps the graphs of one run alive, so that no two have the same address: these graphs have duplicate names, with which
# a look-up may still use its entries for a dead graph.
_ALIVE: list[GraphProto] = []


def random_graph(name: str, seed: int) -> GraphProto | None:
    """The same graph for the same seed; None if it would take the slow model too long."""
    rng = random.Random(f"{name} {seed}")
    pairs = catalogue.find_row(name).pairs
    graph = furnished_graph(rng, rng.choice(pairs)[0], products=name.endswith("v10"))
    if any(len(all_assignments(Table(graph), parse_pair(*pair))) > MOST_ASSIGNMENTS for pair in pairs):
        return None
    return graph


def check(name: str, seed: int) -> int | type[Exception] | None:
    """The result of `apply` on one random graph; None if the graph would take the slow model too long."""
    before = random_graph(name, seed)
    if before is None:
        return None
    graphs = [GraphProto.FromString(before.SerializeToString()) for _ in range(2)]
    _ALIVE.extend(graphs)
    head = f"{name}, seed {seed}\n{to_text(before)}\n"
    actual, counts = None, []
    for _ in range(2):  # no state is kept from one `apply` to the next
        expected = outcome(lambda: expected_apply(name, graphs[0]))
        actual = outcome(lambda: catalogue.find_row(name).apply(graphs[1]))
        assert actual == expected, head
        found = difference(graphs[0], graphs[1], all_names(before))
        assert found is None, head + str(found)
        counts.append(actual[0])
    if counts == [0, 0]:
        assert serialized(graphs[1]) == serialized(before), f"{head}a trace of refused occurrences"
    return counts[0]


@pytest.mark.parametrize("name", CALLBACKS)
def test_random_graphs(name: str) -> None:
    outcomes = [check(name, seed) for seed in range(GRAPHS)]
    # Checks the generator of graphs: it must lead to replacements, and also to graphs without one.
    counts = [o for o in outcomes if isinstance(o, int)]
    assert GRAPHS < 60 or (sum(map(bool, counts)) > GRAPHS / 10 and 0 in counts)


def test_every_class_has_its_model() -> None:
    assert CALLBACKS.keys() == catalogue.rows().keys()


@pytest.mark.parametrize("name", ["quant_conv", "quant_gemm", "quant_matmul", "update_tesselquant"])
def test_a_replaced_look_up_sees_the_graph_after_the_splice(name: str, monkeypatch: pytest.MonkeyPatch) -> None:
    """As in the model: all occurrences of the round are replaced, and no old node is next to its replacement."""
    known: set[str] = set()
    seen: dict[Any, list[Any]] = {}

    def watched(module: Any, look_up: Callable[..., Any]) -> Callable[..., Any]:
        def watch(graph: GraphProto, names: Any) -> Any:
            nodes = Renaming(graph, known).form.node
            seen[module].append([(node.op_type, node.name, list(node.input), list(node.output)) for node in nodes])
            return look_up(graph, names)

        return watch

    monkeypatch.setattr(callbacks, "record", watched(callbacks, callbacks.record))
    monkeypatch.setattr(transform_utilities, "get_init", watched(transform_utilities, transform_utilities.get_init))
    runs: dict[Any, Callable[[GraphProto], int]] = {
        callbacks: partial(expected_apply, name),
        transform_utilities: catalogue.find_row(name).apply,
    }
    rounds = 0
    for seed in range(GRAPHS):
        before = random_graph(name, seed)
        if before is None:
            continue
        known = all_names(before)
        for module, run in runs.items():
            seen[module] = []
            _ALIVE.append(GraphProto.FromString(before.SerializeToString()))
            outcome(partial(run, _ALIVE[-1]))
        expected, actual = ([state for state, _ in groupby(states)] for states in seen.values())
        assert actual == expected, (name, seed)
        rounds += len(expected)
    assert rounds > GRAPHS / 2
