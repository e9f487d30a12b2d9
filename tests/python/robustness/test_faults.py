"""Every use of the graph fails once: the error comes out, and the graph is in the original or the accepted state.

ONNXGRAFT_FAULTS sets how many uses fail per class and graph; every use of the small graph does.
"""

import os
from collections.abc import Callable
from typing import Any

import pytest
from onnx import AttributeProto, GraphProto, TensorProto

from helpers.checks import dangling, is_sound, writers
from helpers.classes import CLASSES, apply, class_graph
from helpers.failing import FaultError, Proxy, Uses
from helpers.small_graphs import SWAP, conv_relus
from onnxgraft.abstract_transformation import AbstractTransformation
from onnxgraft.graph.names import all_names

FAULTS = int(os.environ.get("ONNXGRAFT_FAULTS", "25"))


class Swap(AbstractTransformation):
    def __init__(self, verdict: Callable[[int], bool]) -> None:
        self.verdict = verdict
        self.calls = 0

    def _on_replace_subgraph(self, *_: Any, **__: Any) -> bool:
        self.calls += 1
        return self.verdict(self.calls)


@pytest.mark.parametrize("after", [False, True])
@pytest.mark.parametrize("verdict", [lambda _: True, lambda _: False, lambda call: call % 2 == 0])
def test_a_fault_at_every_use(verdict: Callable[[int], bool], after: bool) -> None:
    before = conv_relus().SerializeToString(deterministic=True)
    faults = 0
    for fail_at in range(1, 2000):
        graph = GraphProto.FromString(before)
        swap, uses = Swap(verdict), Uses(fail_at, after=after)
        try:
            swap._replace_all_isomorphic_sub_graphs(uses.wrap(graph), *SWAP)
        except FaultError:
            faults += 1
        else:
            break
        finally:
            uses.left = 0
        assert is_sound(graph), f"use {fail_at}"
        if swap.calls == 0:
            assert graph.SerializeToString(deterministic=True) == before, f"use {fail_at}"
        if swap.calls == 3:  # all were called: accepted ones stay, refused ones are restored
            accepted = sum(verdict(call) for call in (1, 2, 3))
            assert sum(node.input[0].endswith("_Relu") for node in graph.node) in (accepted, 3), f"use {fail_at}"
    assert faults > 100


@pytest.mark.parametrize("after", [False, True])
@pytest.mark.parametrize("seed", range(2))
@pytest.mark.parametrize("name", CLASSES)
def test_a_fault_in_every_class(name: str, seed: int, after: bool) -> None:
    before = class_graph(name, seed)
    unchanged = before.SerializeToString(deterministic=True)
    counting = Uses(0)
    usual = apply(name, counting.wrap(GraphProto.FromString(unchanged)))
    uses = -counting.left
    alone = max(writers(before).values()) == 1
    known = all_names(before)
    for fail_at in range(1, uses + 1, max(1, uses // FAULTS)):
        graph, failing = GraphProto.FromString(unchanged), Uses(fail_at, after=after)
        outcome = apply(name, failing.wrap(graph))
        # After an error of its own, the caller must see the first error.
        assert isinstance(outcome, FaultError) or type(outcome) is type(usual), f"use {fail_at} of {uses}: {outcome!r}"
        assert not alone or max(writers(graph).values()) == 1, f"use {fail_at}: two writers"
        lost = dangling(graph) & known - dangling(before)
        assert not lost, f"use {fail_at}: nothing writes {lost} any more"
        if list(graph.node) == list(before.node):
            assert graph.SerializeToString(deterministic=True) == unchanged, f"use {fail_at}"


@pytest.mark.parametrize(("says", "error"), [(3, "shrank"), (15, "grew")])
def test_a_list_that_lies_about_its_length(monkeypatch: pytest.MonkeyPatch, says: int, error: str) -> None:
    """Ten of twenty initializers are removed, every other one: too many runs to delete them one by one."""
    graph = conv_relus(10)
    tensors = [copy for tensor in graph.initializer for copy in (tensor, TensorProto(name=f"{tensor.name}_kept"))]
    graph.ClearField("initializer")
    initializers = graph.initializer
    initializers.extend(tensors)
    lengths = {id(initializers): says}
    monkeypatch.setattr(Proxy, "__len__", lambda self: lengths.get(id(self._value), len(self._value)))
    with pytest.raises(RuntimeError, match=f"the list {error} while"):
        Swap(lambda _: True)._replace_all_isomorphic_sub_graphs(Uses(0).wrap(graph), SWAP[0], ["Clip:0->3"])
    assert is_sound(graph)
    assert len(graph.node) == 10
    assert {tensor.name for tensor in graph.initializer} == {tensor.name for tensor in tensors}


def test_a_list_that_shrinks_while_it_is_sorted(monkeypatch: pytest.MonkeyPatch) -> None:
    graph, call = conv_relus(), Uses._call

    def shrinking_call(self: Uses, method: Any, args: Any, kwargs: Any) -> Any:
        if "key" in kwargs:
            del graph.node[-1]
        return call(self, method, args, kwargs)

    monkeypatch.setattr(Uses, "_call", shrinking_call)
    with pytest.raises(RuntimeError, match="the list shrank while"):
        Swap(lambda _: True)._replace_all_isomorphic_sub_graphs(Uses(0).wrap(graph), *SWAP)


NAMES = [
    (lambda g: g.node[3], "name", "node 3 (Relu): name"),
    (lambda g: g.node[3], "op_type", "node 3: operator"),
    (lambda g: g.node[3], "domain", "node 3 (Relu): domain"),
    (lambda g: g.node[2], "input", "node 2 (Conv): input 0"),
    (lambda g: g.node[2], "output", "node 2 (Conv): output 0"),
    (lambda g: g.initializer[1], "name", "initializer 1: name"),
    (lambda g: g.input[0], "name", "input 0: name"),
    (lambda g: g.value_info[2], "name", "value_info 2: name"),
    (lambda g: g.quantization_annotation.add(), "tensor_name", "quantization_annotation 0: tensor name"),
    (lambda g: g.sparse_initializer.add().values, "name", "sparse_initializer 0: name"),
    (lambda g: body_of(g).output[0], "name", "node 6, body: output 0: name"),
]


def body_of(graph: GraphProto) -> GraphProto:
    graph.node.add(op_type="If").attribute.add(type=AttributeProto.GRAPH).g.output.add()
    return graph.node[-1].attribute[0].g


@pytest.mark.parametrize(("place", "field", "message"), NAMES, ids=[message for *_, message in NAMES])
def test_a_name_that_is_not_utf8_is_told_with_its_place(place: Any, field: str, message: str) -> None:
    """Protobuf returns such names as bytes. Python cannot set one, but a file may contain it."""
    graph = conv_relus()
    owner = place(graph)
    if field in ("input", "output"):
        getattr(owner, field)[0] = "nXXXX"
    else:
        setattr(owner, field, "nXXXX")
    graph = GraphProto.FromString(graph.SerializeToString().replace(b"nXXXX", b"n\xb0\xc4XX"))
    before = graph.SerializeToString()
    with pytest.raises(ValueError, match="is not UTF-8") as caught:
        AbstractTransformation()._replace_all_isomorphic_sub_graphs(graph, *SWAP)
    assert str(caught.value).startswith(rf"{message} b'n\xb0\xc4XX' is")
    assert graph.SerializeToString() == before
