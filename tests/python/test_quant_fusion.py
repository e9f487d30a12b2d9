"""`replace_quant_any` merges whatever it finds; `replace_quant` only quantize nodes of equal parameters."""

from __future__ import annotations

from typing import Any

import numpy as np
import pytest
from onnx import GraphProto, NodeProto, helper

from helpers.occurrences import occurrence, set_attributes
from onnxgraft import quant

ANY, EQUAL = quant.FuseTesselQuantAnyTransformation, quant.ChangeTesselQuantTransformation
P = {"scale": 0.5, "offset": 1.0}
JUST_ABOVE = float(np.nextafter(np.float32(0.001), np.float32(1)))
JUST_BELOW = float(np.nextafter(np.float32(0.001), np.float32(0)))


@pytest.mark.parametrize(
    ("first", "second", "accepted"),
    [
        (P, P, True),
        (P, {**P, "scale": 0.5005}, True),
        (P, {**P, "scale": 0.502}, False),
        (P, {**P, "offset": 1.0005}, True),
        (P, {**P, "offset": 0.0}, False),
        ({"scale": 0.5}, P, False),
        (P, {"offset": 1.0}, False),
        ({}, {}, False),
        ({**P, "offset": 0.0}, {**P, "offset": 7}, True),  # of type INT: its float field is 0
        ({**P, "scale": 0.0}, {**P, "scale": "text"}, True),
        ({**P, "scale": 0.0}, {**P, "scale": JUST_BELOW}, True),
        ({**P, "scale": JUST_ABOVE}, {**P, "scale": 0.0}, False),
        ({**P, "scale": float("nan")}, P, True),  # no comparison with NaN is true
    ],
)
def test_acceptance(first: dict[str, Any], second: dict[str, Any], accepted: bool) -> None:
    nodes = [set_attributes(NodeProto(), **first), NodeProto(), set_attributes(NodeProto(), **second)]
    assert EQUAL()._on_replace_subgraph(GraphProto(), nodes, {}, {}, more=1) is accepted
    for pair in range(1, 5):
        graph = occurrence(getattr(EQUAL, f"subgraph_{pair}"), {}, {0: first, 2: second})
        before = graph.SerializeToString()
        assert EQUAL().apply(graph) == accepted
        if accepted:
            assert [n.op_type for n in graph.node].count("TesselQuant") == 1
            assert [n.input[0] for n in graph.node if n.output[0] == "t4"] == ["t5"]
        else:
            assert graph.SerializeToString() == before
        assert ANY().apply(graph) == (not accepted)


def test_the_first_attribute_counts_and_three_nodes_are_needed() -> None:
    twice = set_attributes(set_attributes(NodeProto(), **P), scale=9.0)
    assert EQUAL()._on_replace_subgraph(GraphProto(), [twice, NodeProto(), set_attributes(NodeProto(), **P)], {}, {})
    with pytest.raises(IndexError):
        EQUAL()._on_replace_subgraph(GraphProto(), [twice, twice], {}, {})


def test_the_survivor_keeps_its_parameters() -> None:
    graph = occurrence(ANY.subgraph_3, {}, {0: {"scale": 0.5}, 2: {"scale": 9.0}})
    assert ANY().apply(graph) == 1
    assert [list(n.attribute) for n in graph.node] == [[helper.make_attribute("scale", 9.0)], []]
