"""The pull-up family's correction of biases, against the formula in NumPy; its refusals and shared names."""

from __future__ import annotations

from typing import Any

import numpy as np
import pytest
from onnx import GraphProto, NodeProto, TensorProto, helper

from helpers.occurrences import Array, add_tensor, arrays, occurrence, same, set_attributes
from onnxgraft import quant, transform_utilities

PULL_UP = quant.ChangeTesselQuantTransformationV2
RNG = np.random.default_rng(5)
WEIGHT = RNG.integers(-128, 127, (8, 3, 3, 3), dtype=np.int8)
BIAS = RNG.integers(-1000, 1000, 8, dtype=np.int32)


def conv(graph: GraphProto, *names: str, **attributes: Any) -> NodeProto:
    node = graph.node.add(op_type="Conv", input=["t99", *names], output=[f"y{len(graph.node)}"])
    return set_attributes(node, **attributes)


def quantized(**attributes: Any) -> GraphProto:
    graph = occurrence(PULL_UP.subgraph_2, {}, {1: attributes})
    add_tensor(graph, "w", WEIGHT)
    add_tensor(graph, "b", BIAS)
    return graph


def delta(weight: Array, offset: float) -> Array:
    summed: Array = weight.sum(axis=tuple(range(1, weight.ndim)))
    return (summed * offset).astype(np.int32)


@pytest.mark.parametrize(
    ("attributes", "offset"),
    [
        ({"offset": 2.0}, 2.0),
        ({"offset": -0.7}, float(np.float32(-0.7))),
        ({"offset": 3}, 3.0),  # of type INT
        ({"offset": "3"}, 0.0),
        ({"scale": 9.0}, 0.0),
    ],
)
@pytest.mark.parametrize("weight", [WEIGHT, WEIGHT.astype(np.float32) / 3, WEIGHT[:, 0, 0, 0]], ids=["int8", "f", "1d"])
@pytest.mark.parametrize("bias", [BIAS, BIAS.astype(np.int64), BIAS.astype(np.float32)], ids=lambda b: b.dtype)
def test_values(attributes: dict[str, Any], offset: float, weight: Array, bias: Array) -> None:
    graph = quantized(**attributes)
    del graph.initializer[:]
    add_tensor(graph, "b", bias)
    add_tensor(graph, "w", weight)
    conv(graph, "w", "b", pads=[0, 0, 0, 0])
    assert PULL_UP().apply(graph) == 1
    assert [t.name for t in graph.initializer] == ["w", "b"]
    assert same(arrays(graph)["b"], (bias - delta(weight, offset)).astype(bias.dtype))
    assert [n.op_type for n in graph.node] == ["TesselQuant", "TesselQuant", "Concat", "Conv"]


def test_two_occurrences_correct_a_shared_bias_once() -> None:
    graph = quantized(offset=2.0)
    second = occurrence(
        [s.replace("99", "98").replace("11", "12") for s in PULL_UP.subgraph_2], {}, {1: {"offset": 5.0}}
    )
    graph.node.extend(second.node)
    conv(graph, "w", "b")
    conv(graph, "w", "b")
    graph.node.add(op_type="Conv", input=["t98", "w", "b"], output=["last"])
    assert PULL_UP().apply(graph) == 2
    once = BIAS - delta(WEIGHT, 2.0)
    assert same(arrays(graph)["b"], once)
    again = occurrence(PULL_UP.subgraph_2, {}, {1: {"offset": 1.0}})
    del graph.node[:4]
    graph.node.extend(again.node)
    assert PULL_UP().apply(graph) == 1
    assert same(arrays(graph)["b"], once - delta(WEIGHT, 1.0)), "a second apply corrects again"


@pytest.mark.parametrize("pads", [[0, 0, 0, 1], [-1, 0, 0, 0]])
@pytest.mark.parametrize("offset", [0.0, 1.0])
def test_padding_refuses(pads: list[int], offset: float) -> None:
    graph = quantized(offset=offset)
    conv(graph, "w", "b")
    conv(graph, "w", "b", pads=pads)
    before = graph.SerializeToString()
    assert PULL_UP().apply(graph) == 0
    assert graph.SerializeToString() == before


def test_a_convolution_without_bias_gets_one() -> None:
    graph = quantized(offset=2.0)
    add_tensor(graph, "v", WEIGHT[:, :1])
    conv(graph, "w")
    conv(graph, "w", "")
    conv(graph, "v", "b", auto_pad="SAME_UPPER")
    assert PULL_UP().apply(graph) == 1
    assert [list(n.input) for n in graph.node[3:]] == [["t99", "w", "w_bias"]] * 2 + [["t99", "v", "b"]]
    found = arrays(graph)
    assert same(found["w_bias"], -delta(WEIGHT, 2.0)), "one initializer for both"
    assert same(found["b"], BIAS - delta(WEIGHT[:, :1], 2.0))
    assert sorted(found) == ["b", "v", "w", "w_bias"]


@pytest.mark.parametrize("taken", ["initializer", "equal initializer", "input", "node", "body", "value_info", "sparse"])
def test_the_name_of_a_new_bias_is_new(taken: str) -> None:
    graph = quantized(offset=2.0)
    info = helper.make_tensor_value_info("w_bias", TensorProto.FLOAT, None)
    if "initializer" in taken:
        add_tensor(graph, "w_bias", -delta(WEIGHT, 2.0) if "equal" in taken else BIAS)
    elif taken == "sparse":
        values = helper.make_tensor("w_bias", TensorProto.FLOAT, [1], [1.0])
        graph.sparse_initializer.append(
            helper.make_sparse_tensor(values, helper.make_tensor("", TensorProto.INT64, [1], [0]), [1]))  # fmt: skip
    elif taken in ("input", "value_info"):
        getattr(graph, taken).append(info)
    else:
        node = graph.node.add(op_type="If" if taken == "body" else "Abs", output=["w_bias" if taken == "node" else "i"])
        body = GraphProto(node=[NodeProto(op_type="Constant", output=["w_bias"])])
        set_attributes(node, **({"then_branch": body} if taken == "body" else {}))
    last = conv(graph, "w")
    assert PULL_UP().apply(graph) == 1
    assert list(last.input) == ["t99", "w", "w_bias_1"]
    assert same(arrays(graph)["w_bias_1"], -delta(WEIGHT, 2.0))


def call(graph: GraphProto, node: NodeProto, **keywords: Any) -> Any:
    return PULL_UP()._on_replace_subgraph(graph, [node], {}, {"99": "t99"}, **keywords)


def test_direct_calls() -> None:
    graph = quantized(offset=2.0)
    quantize = graph.node[1]
    assert call(graph, NodeProto(op_type="Relu")) is True, "nothing else is looked at"
    with pytest.raises(KeyError, match="99"):
        PULL_UP()._on_replace_subgraph(graph, [quantize], {}, {})
    with pytest.raises(IndexError):
        PULL_UP()._on_replace_subgraph(graph, [], {}, {})
    updated = {"other"}
    assert call(graph, quantize, conv_bias_updated=updated) is True
    assert updated == {"other"}
    first, second = conv(graph, "w", "b"), conv(graph, "w")
    before = graph.SerializeToString()
    with pytest.raises(KeyError, match="conv_bias_updated"):
        call(graph, quantize)
    assert graph.SerializeToString() == before
    assert call(graph, quantize, conv_bias_updated=updated, debug=False) is True
    assert updated == {"other", "b", "w_bias"}
    assert (list(first.input), list(second.input)) == (["t99", "w", "b"], ["t99", "w", "w_bias"])


@pytest.mark.parametrize(
    "answer",
    [None, (None, None), ([], []), ([None, None], [None, None]), ([WEIGHT], [None]), ([WEIGHT, None], [1, 2])],
)
@pytest.mark.parametrize("failing", [0, 1])
def test_a_look_up_that_gives_nothing_refuses(answer: Any, failing: int, monkeypatch: pytest.MonkeyPatch) -> None:
    graph = quantized(offset=2.0)
    conv(graph, "w", "b")
    conv(graph, "w", "b")
    real, calls = transform_utilities.get_init, iter(range(9))
    monkeypatch.setattr(
        transform_utilities, "get_init", lambda g, names: answer if next(calls) == failing else real(g, names)
    )
    before = graph.SerializeToString()
    assert call(graph, graph.node[1], conv_bias_updated=set()) is False
    assert graph.SerializeToString() == before


def test_a_bias_of_another_length_is_an_error_before_anything_is_written() -> None:
    graph = quantized(offset=2.0)
    add_tensor(graph, "short", BIAS[:7])
    conv(graph, "w", "b")
    conv(graph, "w", "short")
    before = graph.SerializeToString()
    with pytest.raises(ValueError, match="broadcast"):
        call(graph, graph.node[1], conv_bias_updated=set())
    assert graph.SerializeToString() == before
    graph.node[-1].input[1] = "computed"
    with pytest.raises(ValueError, match="'computed' is no initializer"):
        call(graph, graph.node[1], conv_bias_updated=set())
