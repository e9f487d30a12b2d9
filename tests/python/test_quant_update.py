"""`update_tesselquant`: bias and dequantize scale against the formula in NumPy."""

from __future__ import annotations

from typing import Any

import numpy as np
import pytest
from onnx import GraphProto, TensorProto, helper

from helpers.occurrences import arrays, occurrence, packed, same, set_attributes
from onnxgraft import quant, transform_utilities

UPDATE = quant.UpdateTesselQuantTransformation
BIAS = np.array([3, -3, 0, 2**24 + 1, -(2**29), 127], np.int32)
SCALES = np.array([0.5, 1e-3, 3.0, 7e-9, 0.1, 1.0], np.float32)


def block(front: dict[str, Any], behind: dict[str, Any], words: Any = None, pair: int = 3) -> GraphProto:
    tensors = {"2": np.ones((6, 1, 1, 1), np.int8), "3": BIAS, "6": packed(SCALES, 7) if words is None else words}
    return occurrence(getattr(UPDATE, f"subgraph_{pair}"), tensors, {0: front, 4: behind})


@pytest.mark.filterwarnings("ignore:divide by zero")
@pytest.mark.parametrize(
    ("front", "behind"),
    [
        ({"scale": 0.5}, {"scale": 1.0, "offset": 4.0}),
        ({"scale": 1.0}, {"scale": 0.5}),
        ({"scale": 0.3, "offset": 1.0}, {"scale": 0.7}),
        ({"scale": 0.3}, {}),
        ({}, {"scale": 0.3}),
        ({"scale": 0.25}, {"scale": 0.25}),
        ({"scale": 0.5}, {"scale": 2}),  # of type INT: its float field is 0
    ],
)
def test_values(front: dict[str, Any], behind: dict[str, Any]) -> None:
    graph = block(front, behind)
    assert UPDATE().apply(graph) == 1
    old, new = (float(np.float32(a["scale"])) if "scale" in a else 1.0 for a in (front, behind))
    ratio = (0.0 if behind.get("scale") == 2 else new) / old
    bias = (BIAS.astype(np.float32) * ratio).astype(np.int32)
    scales = SCALES / ratio
    assert [t.name for t in graph.initializer] == ["t2", "t3", "t6"]
    found = arrays(graph)
    assert same(found["t3"], bias)
    assert same(found["t6"], packed(scales))
    record = graph.initializer[2]
    assert (record.data_type, list(record.dims), record.raw_data) == (TensorProto.UINT64, [6], b"")
    assert [a for n in graph.node if n.output[0] == "t1" for a in n.attribute] == [
        helper.make_attribute(k, v) for k, v in behind.items()]  # fmt: skip


@pytest.mark.parametrize("pair", range(1, 7))
def test_every_pair_is_searched_for(pair: int) -> None:
    graph = block({"scale": 0.5}, {"scale": 1.0}, pair=pair)
    assert UPDATE().apply(graph) == 1
    assert arrays(graph)["t3"][0] == 6


def test_truncation_goes_toward_zero() -> None:
    graph = block({"scale": 1.0}, {"scale": 0.5})
    UPDATE().apply(graph)
    assert arrays(graph)["t3"][:2].tolist() == [1, -1]


@pytest.mark.parametrize("scale", [0.0, 3])
def test_a_scale_of_zero(scale: Any) -> None:
    graph = block({"scale": scale}, {"scale": 1.0})
    before = list(graph.initializer)
    with pytest.raises(ZeroDivisionError):
        UPDATE().apply(graph)
    assert list(graph.initializer) == before


def test_failures_of_a_direct_call(monkeypatch: pytest.MonkeyPatch) -> None:
    graph = block({}, {})
    nodes, call = list(graph.node), UPDATE()._on_replace_subgraph
    before = list(graph.initializer)
    for wrong in (([], []), ([1, 2], [1, 2]), ([1], [])):
        with monkeypatch.context() as patch:
            patch.setattr(transform_utilities, "get_init", lambda *_, wrong=wrong: wrong)
            with pytest.raises(ValueError, match="unpack"):
                call(graph, nodes, {1: 1, 2: 2}, {})
    asked: list[Any] = []
    real = transform_utilities.get_init

    def spy(graph: GraphProto, names: Any) -> Any:
        asked.append(names)
        return real(graph, names)

    monkeypatch.setattr(transform_utilities, "get_init", spy)
    assert call(graph, nodes, {1: 1, 2: 2}, {}, debug=1) is True
    assert asked == [["t3"], ["t6"]]
    del graph.node[1].input[2]
    with pytest.raises(IndexError):
        call(graph, nodes, {1: 1, 2: 2}, {})
    assert [t.name for t in graph.initializer] == [t.name for t in before]


def test_the_first_scale_counts() -> None:
    graph = block({"scale": 0.5}, {"scale": 1.0})
    set_attributes(graph.node[4], scale=100.0)
    UPDATE().apply(graph)
    assert arrays(graph)["t3"][0] == 6
