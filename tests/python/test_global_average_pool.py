"""`change_gap_conv`: float weights and biases against the formula in NumPy, and every refusal."""

from __future__ import annotations

from typing import Any

import numpy as np
import pytest
from onnx import GraphProto

from helpers.occurrences import Array, arrays, occurrence, packed, same
from onnxgraft import quant

CHANGE = quant.ChangeGAPCONVTransformation
RNG = np.random.default_rng(9)
WEIGHTS = (RNG.integers(-128, 127, (8, 32, 1, 1), np.int8), RNG.integers(-128, 127, (32, 8, 1, 1), np.int8))
BIASES = tuple(RNG.integers(-(10**6), 10**6, count, np.int32) for count in (8, 32))
SCALES = tuple(RNG.random(count, np.float32) for count in (8, 32))
QUANTIZE = ({"scale": 0.3, "offset": 4.0}, {"scale": 1.7, "offset": 0.0})
POSITIONS = {1: (1, 2, 6, 7), 2: (1, 2, 5, 6)}  # pair -> first quantize, first convolution, second quantize, second


def block(pair: int, conv: Any = ({"group": 1},) * 2, quantize: Any = QUANTIZE, weights: Any = WEIGHTS) -> GraphProto:
    tensors = {"3": weights[0], "4": BIASES[0], "6": packed(SCALES[0], 99)}
    tensors |= {"11": weights[1], "12": BIASES[1], "14": packed(SCALES[1])}
    attributes = dict(zip(POSITIONS[pair], (quantize[0], conv[0], quantize[1], conv[1]), strict=True))
    return occurrence(getattr(CHANGE, f"subgraph_{pair}"), tensors, attributes)


def expected(index: int) -> tuple[Array, Array]:
    divisor = 1 / SCALES[index] / float(np.float32(QUANTIZE[index]["scale"]))
    weight = WEIGHTS[index].astype(np.float32) / np.expand_dims(divisor, (1, 2, 3))
    return weight, BIASES[index].astype(np.float32) * SCALES[index]


@pytest.mark.parametrize(("pair", "activation"), [(1, ["Sigmoid", "Mul"]), (2, ["Relu"])])
def test_values(pair: int, activation: list[str]) -> None:
    graph = block(pair)
    assert CHANGE().apply(graph) == 1
    assert [n.op_type for n in graph.node] == ["GlobalAveragePool", "Conv", *activation, "Conv", "Sigmoid"]
    convolutions = [n for n in graph.node if n.op_type == "Conv"]
    assert [t.name for t in graph.initializer] == [name for n in convolutions for name in n.input[1:]]
    found = arrays(graph)
    for index, node in enumerate(convolutions):
        weight, bias = expected(index)
        assert weight.dtype == np.float32
        assert same(found[node.input[1]], weight)
        assert same(found[node.input[2]], bias)


ONE = {"group": 1}
WIDE = np.ones((8, 32, 3, 3), np.int8)
REFUSED: dict[str, dict[str, Any]] = {
    "no group on the first": {"conv": ({}, ONE)},
    "no group on the second": {"conv": (ONE, {})},
    "groups": {"conv": (ONE, {"group": 8})},
    "group of another type": {"conv": ({"group": 1.0}, ONE)},
    "no offset": {"quantize": ({"scale": 1.0}, QUANTIZE[1])},
    "no scale on the second": {"quantize": (QUANTIZE[0], {"offset": 1.0})},
    "a kernel": {"weights": (WIDE, WEIGHTS[1])},
    "a kernel on the second": {"weights": (WEIGHTS[0], WIDE)},
    "three dimensions": {"weights": (WEIGHTS[0][..., 0], WEIGHTS[1])},
    "five dimensions": {"weights": (WEIGHTS[0][..., None], WEIGHTS[1])},
}


@pytest.mark.parametrize("case", REFUSED)
@pytest.mark.parametrize("pair", [1, 2])
def test_refusals(case: str, pair: int) -> None:
    graph = block(pair, **REFUSED[case])
    before = graph.SerializeToString()
    assert CHANGE().apply(graph) == 0
    assert graph.SerializeToString() == before


def test_a_quantize_scale_of_another_type_reads_zero() -> None:
    graph = block(1, quantize=({"scale": 2, "offset": 0.0}, QUANTIZE[1]))
    with pytest.warns(RuntimeWarning, match="divide by zero"):
        assert CHANGE().apply(graph) == 1
    first = next(n for n in graph.node if n.op_type == "Conv")
    assert not arrays(graph)[first.input[1]].any()


def test_a_failure_writes_nothing() -> None:
    graph = block(1)
    nodes = list(graph.node)
    links = {key: f"t{key}" for key in ("3", "4", "6", "11", "12", "14", "100", "101", "102")}
    before = graph.SerializeToString()
    with pytest.raises(KeyError, match="103"):
        CHANGE()._on_replace_subgraph(graph, nodes, {}, links)
    assert graph.SerializeToString() == before
