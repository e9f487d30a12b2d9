"""Interference: other threads, other greenlets, replaced functions and classes."""

import threading
from collections.abc import Callable
from typing import Any
from unittest.mock import Mock

import numpy as np
import onnx
import pytest
from onnx import GraphProto, NodeProto, TensorProto, numpy_helper

from helpers.classes import CLASSES, apply, class_graph
from helpers.occurrences import add_tensor, occurrence
from onnxgraft import quant, transform_utilities

BUSY = "a graph is rewritten by one call at a time"
PULL_UP = quant.ChangeTesselQuantTransformationV2
WEIGHT = np.ones((2, 2, 1, 1), np.float32)


def convolutions(count: int = 3, weight: Any = WEIGHT) -> GraphProto:
    graph = GraphProto()
    for k in range(count):
        graph.node.add(op_type="Conv", input=[f"t{k}", f"w{k}"], output=[f"t{k + 1}"])
        add_tensor(graph, f"w{k}", weight)
    return graph


@pytest.fixture
def asked(monkeypatch: pytest.MonkeyPatch) -> Callable[[Callable[[], object]], None]:
    """Calls a function before each look-up of an initializer."""

    def put(first: Callable[[], object]) -> None:
        real = transform_utilities.get_init
        monkeypatch.setattr(transform_utilities, "get_init", lambda *found: (first(), real(*found))[1])

    return put


def test_another_thread_is_refused(asked: Any) -> None:
    graph, other = convolutions(), convolutions()
    at_work, go_on = threading.Event(), threading.Event()
    counts: list[int] = []

    def wait() -> None:
        at_work.set()
        assert go_on.wait(60)

    thread = threading.Thread(target=lambda: counts.append(quant.QuantConvTransformation().apply(graph)))
    asked(wait)
    thread.start()
    assert at_work.wait(60)
    before = graph.SerializeToString()
    for cls in CLASSES.values():
        with pytest.raises(RuntimeError, match=BUSY):
            cls().apply(graph)
    assert graph.SerializeToString() == before
    go_on.set()
    assert quant.QuantConvTransformation().apply(other) == 3, "another graph is free"
    thread.join()
    assert counts == [3]
    assert quant.QuantConvTransformation().apply(graph) == 0, "afterwards the graph is free"


def test_threads_on_one_graph_never_crash() -> None:
    graphs = [class_graph("replace_quant_v2", seed) for seed in range(6)]
    errors: list[BaseException] = []

    def work() -> None:
        for _ in range(30):
            for graph in graphs:
                found = apply("replace_quant_v2", graph)
                errors.extend([found] if isinstance(found, RuntimeError) and BUSY not in str(found) else [])

    threads = [threading.Thread(target=work) for _ in range(4)]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    assert errors == []


def test_a_second_call_from_within_is_refused_where_it_would_not_be_seen(asked: Any) -> None:
    graph, other = convolutions(), convolutions(2)
    inner: list[int] = []

    def apply_inside() -> None:
        if not inner:
            inner.append(0)
            inner.append(quant.QuantConvTransformation().apply(other))
            quant.QuantGemmTransformation().apply(graph)

    asked(apply_inside)
    with pytest.raises(RuntimeError, match=BUSY):
        quant.QuantConvTransformation().apply(graph)
    assert inner == [0, 2], "another graph is free"

    class Own(quant.QuantConvTransformation):
        def _update_bias(self, graph: GraphProto, bias_names: Any) -> TensorProto:
            raise AssertionError

        def _update_tesselquant(self, graph: GraphProto, mapping: Any, tessel_quant_idx: int) -> None:
            assert quant.QuantGemmTransformation().apply(graph) == 0
            super()._update_tesselquant(graph, mapping, tessel_quant_idx)

    assert Own().apply(convolutions()) == 3, "code that may change anything may run passes"


def test_greenlets_may_switch_inside_of_a_callback() -> None:
    greenlet = pytest.importorskip("greenlet")
    main = greenlet.getcurrent()

    class Switching(quant.QuantConvTransformation):
        def _update_weights(self, *arguments: Any, **named: Any) -> Any:
            main.switch()
            return super()._update_weights(*arguments, **named)

    graphs = [convolutions(4) for _ in range(3)]
    runs = [greenlet.greenlet(lambda graph=graph: Switching().apply(graph)) for graph in graphs]
    results: dict[int, object] = {}
    while len(results) < len(runs):
        for number, run in enumerate(runs):
            result = None if run.dead else run.switch()
            if run.dead and number not in results:
                results[number] = result
    assert list(results.values()) == [4, 4, 4]


@pytest.mark.parametrize("name", ["replace_resize_quant", "replace_concat_quant_v10"])
def test_a_subclass_in_the_place_of_its_class(name: str, monkeypatch: pytest.MonkeyPatch) -> None:
    cls = CLASSES[name]
    graphs = [[class_graph(name, seed) for seed in range(20)] for _ in range(2)]
    expected = [(str(apply(name, graph)), graph.SerializeToString()) for graph in graphs[0]]
    monkeypatch.setattr(quant, cls.__name__, type("Patched", (cls,), {}))
    monkeypatch.setitem(CLASSES, name, getattr(quant, cls.__name__))
    assert [(str(apply(name, graph)), graph.SerializeToString()) for graph in graphs[1]] == expected


def test_a_weight_whose_name_is_no_text() -> None:
    graph = occurrence(PULL_UP.subgraph_2, {}, {1: {"offset": 2.0}})
    graph.node.append(NodeProto(op_type="Conv", input=["t99", "w"], output=["y"]))
    broken = GraphProto.FromString(graph.SerializeToString().replace(b"\n\x03t99\n\x01w", b"\n\x03t99\n\x01\xff"))
    assert broken.SerializeToString() != graph.SerializeToString()
    before = broken.SerializeToString()
    with pytest.raises((ValueError, TypeError)):
        PULL_UP().apply(broken)
    with pytest.raises((ValueError, TypeError)):
        PULL_UP()._on_replace_subgraph(broken, [broken.node[1]], {}, {"99": "t99"}, conv_bias_updated=set())
    assert broken.SerializeToString() == before


def test_serialization_that_gives_no_bytes(monkeypatch: pytest.MonkeyPatch) -> None:
    graphs = [convolutions(), convolutions()]
    np.random.seed(3)
    assert quant.QuantConvTransformation().apply(graphs[0]) == 3
    try:
        monkeypatch.setattr(onnx.NodeProto, "SerializePartialToString", lambda _: "text")
    except (AttributeError, TypeError):
        pytest.skip("messages of this protobuf cannot be changed")
    np.random.seed(3)
    assert quant.QuantConvTransformation().apply(graphs[1]) == 3
    assert graphs[0].SerializeToString() == graphs[1].SerializeToString()


@pytest.mark.parametrize("dtype", [np.float32, np.int8])
def test_an_error_inside_of_a_callback_goes_on(dtype: Any, asked: Any) -> None:
    graph = convolutions(3, WEIGHT.astype(dtype))
    calls = iter(range(9))

    def fail() -> None:
        if next(calls) == 1:
            raise TimeoutError

    asked(fail)
    with pytest.raises(TimeoutError):
        quant.QuantConvTransformation().apply(graph)
    replaced = [node.op_type for node in graph.node]
    # INT8: the first is refused, the second stays as it was left, the third was not called. Otherwise it is the first.
    conv = ["TesselQuant", "Conv", "TesselDequant"]
    assert replaced == (["Conv", *conv, "Conv"] if dtype is np.int8 else [*conv, "Conv", "Conv"])


def test_a_spy_sees_all_and_changes_nothing(monkeypatch: pytest.MonkeyPatch) -> None:
    graphs = [convolutions(), convolutions()]
    np.random.seed(3)
    quant.QuantConvTransformation().apply(graphs[0])
    spies = {}
    for owner, name in (
        (transform_utilities, "get_init"), (numpy_helper, "to_array"), (numpy_helper, "from_array"),
        (onnx.helper, "make_attribute"),
    ):  # fmt: skip
        spies[name] = Mock(side_effect=getattr(owner, name))
        monkeypatch.setattr(owner, name, spies[name])
    np.random.seed(3)
    quant.QuantConvTransformation().apply(graphs[1])
    assert graphs[0].SerializeToString() == graphs[1].SerializeToString()
    assert {name: spy.call_count for name, spy in spies.items()} == {
        "get_init": 6, "to_array": 6, "from_array": 3, "make_attribute": 6,
    }  # fmt: skip
