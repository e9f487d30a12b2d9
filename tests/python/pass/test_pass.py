"""One pass from the view of a transformation's author: what callbacks may do, the state after an error, messages."""

import contextlib
import gc
import sys
from collections.abc import Callable
from typing import Any, ClassVar, cast

import numpy as np
import pytest
from onnx import GraphProto, NodeProto, helper

from helpers.small_graphs import graph_of, operators
from onnxgraft import quant
from onnxgraft.abstract_transformation import AbstractTransformation

PATTERN = ["Relu:0->1"]
REPLACEMENT = ["Neg:0->100", "#0:100->1"]


class Negate(AbstractTransformation):
    """Puts a `Neg` before each `Relu`; `act(call number, graph, removed node)` is the callback."""

    def __init__(self, act: Callable[[int, GraphProto, NodeProto], Any]) -> None:
        self.act = act
        self.calls = 0

    def get_simple_name(self) -> str:
        return "negate"

    def _on_replace_subgraph(self, graph: GraphProto, *found: Any, **_: Any) -> bool:
        (removed,), mapping, links = found
        assert [graph.node[mapping[k]].op_type for k in (0, 1)] == ["Neg", "Relu"]
        assert graph.node[mapping[1]].input[0] == links["100"]
        assert removed.input[0] == links["0"]
        self.calls += 1
        return cast(bool, self.act(self.calls, graph, removed))

    def apply(self, graph: GraphProto, debug: bool = False) -> int:
        return self._replace_all_isomorphic_sub_graphs(graph, PATTERN, REPLACEMENT, debug=debug)


def relus(count: int) -> GraphProto:
    return graph_of([f"Relu x{i} -> x{i + 1}" for i in range(count)], inputs=["x0"], outputs=[f"x{count}"])


def raising(number: int, error: BaseException, *refused: int) -> Callable[..., bool]:
    def act(call: int, *_: object) -> bool:
        if call == number:
            raise error
        return call not in refused

    return act


@pytest.mark.parametrize(
    "error", [ValueError("no"), KeyboardInterrupt(), SystemExit(3), MemoryError()], ids=lambda e: type(e).__name__
)
def test_an_error_keeps_what_was_accepted_and_takes_back_the_rest(error: BaseException) -> None:
    graph = relus(5)
    with pytest.raises(type(error)) as raised:
        Negate(raising(3, error, 1)).apply(graph)
    assert raised.value is error
    assert operators(graph) == "Relu Neg Relu Neg Relu Relu Relu"


def remove_last(call: int, graph: GraphProto, _: NodeProto) -> bool:
    if call == 1:
        del graph.node[-1]
    return True


def remove_all(call: int, graph: GraphProto, _: NodeProto) -> bool:
    del graph.node[:]
    return True


def run_again(call: int, graph: GraphProto, _: NodeProto) -> bool:
    if call == 1:
        assert Negate(lambda *_: True).apply(graph) == 3
    return True


@pytest.mark.parametrize(
    ("act", "lost", "left"),
    [
        (remove_last, "node_2' \\(Relu, writes 'x3'\\)", "Neg Relu Neg Relu Relu"),
        (remove_all, "node_1_Neg' \\(Neg", "Relu Relu"),
        (run_again, "node_1' \\(Relu", ""),
    ],
)
def test_a_node_lost_before_its_turn_is_named(act: Callable[..., bool], lost: str, left: str) -> None:
    graph = relus(3)
    with pytest.raises(RuntimeError, match=f"{lost}.* is no longer in the graph"):
        Negate(act).apply(graph)
    if act is run_again:  # the inner run's nodes stay, and no tensor has two writers
        outputs = [name for node in graph.node for name in node.output]
        assert len(outputs) == len(set(outputs))
    else:
        assert operators(graph) == left


def test_indices_are_right_after_a_callback_moved_nodes() -> None:
    def add_in_front(call: int, graph: GraphProto, _: NodeProto) -> bool:
        graph.node.insert(0, helper.make_node("Abs", ["x0"], [f"abs{call}"]))
        return call != 2

    graph = relus(4)
    assert Negate(add_in_front).apply(graph) == 3
    assert operators(graph) == "Abs Abs Abs Abs Neg Relu Relu Neg Relu Neg Relu"
    assert [n.input[0] for n in graph.node if n.op_type == "Relu"] == ["x0_Neg", "x1", "x2_Neg", "x3_Neg"]


@pytest.mark.parametrize("name", ["n" * 126, "n" * 127, "n" * 128, "n" * 300_000, "n\u00fc\u4e2d", "n\0m"])
def test_new_nodes_have_their_names_whatever_these_are(name: str) -> None:
    graph = relus(3)
    graph.node[1].name = graph.node[0].output[0] = graph.node[1].input[0] = name
    assert Negate(lambda *_: True).apply(graph) == 3
    negs = [node for node in graph.node if node.op_type == "Neg"]
    assert [negs[1].input[0], negs[1].output[0], negs[1].name] == [name, f"{name}_Neg", f"{name}_Neg_1"]
    assert GraphProto.FromString(graph.SerializeToString()) == graph


@pytest.mark.parametrize(
    ("graph", "pattern", "replacement", "error", "text"),
    [
        (relus(1), "Relu:0->1", [], TypeError, "subgraph must be a list of strings .* not str"),
        (relus(1), PATTERN, {"#0"}, TypeError, "replacement must be a list .* not set"),
        (relus(1), [b"Relu:0->1"], [], TypeError, "element 0 must be a str, not bytes"),
        (relus(1), ["Relu:0=>1"], [], ValueError, r"pattern string 0 \(\"Relu:0=>1\"\), column 7"),
        (relus(1), PATTERN, ["#1"], ValueError, "no such pattern node"),
        (helper.make_model(relus(1)), PATTERN, REPLACEMENT, TypeError, "not ModelProto: pass model.graph"),
        (None, PATTERN, REPLACEMENT, TypeError, "must be a GraphProto, not NoneType"),
    ],
)
def test_bad_arguments(graph: Any, pattern: Any, replacement: Any, error: type[Exception], text: str) -> None:
    before = graph and graph.SerializeToString()
    with pytest.raises(error, match=text):
        AbstractTransformation()._replace_all_isomorphic_sub_graphs(graph, pattern, replacement)
    assert before == (graph and graph.SerializeToString())


def test_debug_writes_one_line_for_a_pass(capsys: pytest.CaptureFixture[str], monkeypatch: pytest.MonkeyPatch) -> None:
    Negate(lambda call, *_: call == 1).apply(relus(2), debug=True)
    quant.DeleteConcatTransformation().apply(relus(2), debug=True)
    first, second = capsys.readouterr().err.splitlines()
    assert first.startswith("negate ['Relu:0->1']: found 2, replaced 1, refused 1, ")
    assert second.endswith("ms; nearest miss: the graph has no TesselQuant node")
    monkeypatch.setattr(sys, "stderr", None)
    assert Negate(lambda *_: True).apply(relus(1), debug=True) == 1


class Awkward:
    """Has no truth value."""

    def __bool__(self) -> bool:
        raise ZeroDivisionError


def reverse(graph: GraphProto) -> None:
    order = {id(node): -index for index, node in enumerate(graph.node)}
    graph.node.sort(key=lambda node: order[id(node)])


def drop_everything(graph: GraphProto) -> None:
    for kept in ["initializer", "input", "output", "value_info"]:
        graph.ClearField(kept)


def exchange(graph: GraphProto) -> None:
    copies = [NodeProto.FromString(node.SerializeToString()) for node in graph.node]
    del graph.node[:]
    graph.node.extend(copies)


def for_ever(graph: GraphProto) -> None:
    Negate(lambda *_: for_ever(graph)).apply(relus(1))


def another(graph: GraphProto) -> None:
    AbstractTransformation()._replace_all_isomorphic_sub_graphs(graph, ["Neg:0->1"], ["#0:0->2", "Abs:2->1"])


ODD_TRUTH = (ValueError, ZeroDivisionError)


@pytest.mark.parametrize(
    ("act", "error"),
    [
        (lambda graph: np.zeros(2), ValueError),
        (lambda graph: Awkward(), ZeroDivisionError),
        (reverse, None),
        (drop_everything, None),
        (exchange, RuntimeError),
        (lambda graph: graph.Clear(), RuntimeError),
        (for_ever, RecursionError),
        (another, RuntimeError),  # it removes a node that the next callback should get
        (lambda graph: gc.collect(), None),
        (lambda graph: setattr(Negate, "get_simple_name", None), None),
    ],
)
@pytest.mark.parametrize("verdict", [True, False, None])
def test_callbacks_that_ask_for_trouble(
    act: Callable[[GraphProto], Any],
    error: type[Exception] | None,
    verdict: bool | None,
    monkeypatch: pytest.MonkeyPatch,
) -> None:
    """The error of the callback or one that names the lost node; never two writers of a tensor, never a crash."""
    monkeypatch.setattr(Negate, "get_simple_name", Negate.get_simple_name)

    def callback(call: int, graph: GraphProto, _: NodeProto) -> Any:
        result = act(graph)
        return result if verdict is None else verdict

    graph = relus(6)
    expected: Any = contextlib.nullcontext()
    if error is not None and (verdict is None or error not in ODD_TRUTH):
        expected = pytest.raises(error)
    with expected:
        Negate(callback).apply(graph)
    written = [name for node in graph.node for name in node.output]
    assert len(set(written)) == len(written)
    lost = {node.input[0] for node in graph.node} - {"x0", *written}
    assert not lost or error is RuntimeError  # if the callback itself removed nodes


def test_the_last_references_go_while_it_runs() -> None:
    def act(*_: object) -> bool:
        held.clear()
        gc.collect()
        return True

    held: list[Any] = [relus(3), Negate(act)]
    assert held[1].apply(*held[:1]) == 3

    class Own(quant.FuseTesselQuantAnyTransformation):
        subgraph_1: ClassVar = ["Relu:0->1"]
        subgraph_rep_1: ClassVar = ["Neg:0->2", "#0:2->1"]

        def _on_replace_subgraph(self, *_: Any, **__: Any) -> bool:
            for name in [n for n in vars(Own) if n.startswith("subgraph")]:
                delattr(Own, name)
            gc.collect()
            return True

    assert Own().apply(relus(2)) == 2


def test_a_standard_name_in_another_domain_may_hold_a_body() -> None:
    graph = graph_of(["Relu x -> a", "Relu a -> y", "Relu x -> z"], outputs=["y", "z"])
    graph.node[2].domain = "own"
    graph.node[2].attribute.append(helper.make_attribute("body", graph_of(["Neg a -> inner"], outputs=["inner"])))
    assert (
        AbstractTransformation()._replace_all_isomorphic_sub_graphs(graph, ["Relu:0->1", "Relu:1->2"], ["Clip:0->2"])
        == 0
    )
