"""Old weights of all kinds, also broken ones: one look-up of element type and shape reports what two would report."""

from typing import Any

import numpy as np
import pytest
from onnx import GraphProto, TensorProto

from helpers.small_graphs import graph_of, ones
from onnxgraft import quant

RAW = bytes(24)
WEIGHTS: dict[str, dict[str, Any]] = {
    "float": {},
    "float16": {"data_type": 10, "raw_data": bytes(12)},
    "bfloat16": {"data_type": 16, "raw_data": bytes(12)},
    "complex": {"data_type": 15, "raw_data": bytes(96)},
    "INT8": {"data_type": 3, "raw_data": bytes(6)},
    "typed": {"raw_data": None, "float_data": range(6)},
    "both": {"float_data": range(5)},
    "scalar": {"dims": [], "raw_data": bytes(4)},
    "empty": {"dims": [2, 0], "raw_data": b""},
    "too short": {"raw_data": bytes(20)},
    "too long": {"raw_data": bytes(28)},
    "any extent": {"dims": [2, -1]},
    "no data": {"raw_data": None},
    "four bits": {"data_type": 22, "raw_data": bytes(3)},
    "text": {"data_type": 8, "raw_data": None, "string_data": [b"a"] * 6},
    "undefined": {"data_type": 0},
    "unknown type": {"data_type": 99},
    "negative type": {"data_type": -1},
    "segment": {"segment": TensorProto.Segment(begin=0, end=1)},
    "in a file": {"data_location": 1, "raw_data": None},
    "in a file and here": {"data_location": 1},
    "beyond memory": {"dims": [2**62, 2**62], "raw_data": b"1"},
}


class Reading(quant.QuantConvTransformation):
    """Not entirely built in, so that every method does its own look-ups."""

    def _check_current_precision(self, *arguments: Any, **keywords: Any) -> bool:
        return bool(super()._check_current_precision(*arguments, **keywords))


def two_convolutions(fields: dict[str, Any]) -> GraphProto:
    given: dict[str, Any] = {"dims": [2, 3], "data_type": 1, "raw_data": RAW} | fields
    weight = {field: value for field, value in given.items() if value is not None}
    graph = graph_of(["Conv x w b -> y", "Conv y v b -> z"], outputs=["z"], tensors={"b": ones(2)})
    graph.initializer.extend(TensorProto(name=name, **weight) for name in "vw")
    return graph


def outcome(cls: type[quant.QuantConvTransformation], graph: GraphProto) -> str:
    np.random.seed(0)
    try:
        return str(cls().apply(graph))
    except Exception as error:
        return repr(error)


@pytest.mark.parametrize("fields", WEIGHTS.values(), ids=WEIGHTS)
def test_one_look_up_tells_what_two_would(fields: dict[str, Any]) -> None:
    graphs = [two_convolutions(fields) for _ in range(2)]
    assert outcome(quant.QuantConvTransformation, graphs[0]) == outcome(Reading, graphs[1])
    assert graphs[0] == graphs[1]
