"""Type and shape of an old weight are told without reading it wherever reading it would not fail or tell otherwise."""

from typing import Any

import numpy as np
import onnx
import pytest
from onnx import GraphProto, TensorProto, helper, numpy_helper

from helpers.small_graphs import graph_of, ones
from onnxgraft import quant, transform_utilities

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
    """Not built in as a whole: everything is asked of get_init and made anew."""

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
def test_what_is_told_is_what_would_be_read(fields: dict[str, Any]) -> None:
    graphs = [two_convolutions(fields) for _ in range(2)]
    assert outcome(quant.QuantConvTransformation, graphs[0]) == outcome(Reading, graphs[1])
    assert graphs[0] == graphs[1]
    told = getattr(transform_utilities.get_init, "describe")(two_convolutions(fields), "w")  # noqa: B009
    if told is not None:
        (array,), (record,) = transform_utilities.get_init(two_convolutions(fields), ["w"])
        assert told == (record.data_type, array.shape)


def test_what_stands_in_the_library_s_place_is_called(monkeypatch: pytest.MonkeyPatch) -> None:
    calls: list[str] = []

    def noting(function: Any) -> Any:
        def note(*arguments: Any) -> Any:
            calls.append(function.__name__)
            return function(*arguments)

        return note

    quant.QuantConvTransformation().apply(two_convolutions({}))
    monkeypatch.setattr(numpy_helper, "to_array", noting(numpy_helper.to_array))
    monkeypatch.setattr(onnx.helper, "make_attribute", noting(helper.make_attribute))
    assert quant.QuantConvTransformation().apply(two_convolutions({})) == 2
    assert calls.count("to_array") >= 4
    assert calls.count("make_attribute") == 4
