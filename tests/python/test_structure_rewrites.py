"""Callbacks of `fuse_bn_quant`, `replace_resize_quant`, `simplify_shape_v2`, `replace_concat_quant_v10`."""

from __future__ import annotations

from typing import Any

import numpy as np
import pytest
from onnx import GraphProto, NodeProto, TensorProto, helper

from helpers.occurrences import add_tensor, arrays, occurrence, same, set_attributes
from onnxgraft import quant

FUSE, RESIZE = quant.FuseQuantBatchNormTransformation, quant.ReplaceResizeQuantTransformation
SIMPLIFY, PRODUCTS = quant.SimplifyShapeV2Transformation, quant.ReplaceConcatQuantTransformationV10


@pytest.mark.parametrize("channels", [64, 65, 2, 1])
def test_normalization_becomes_a_bias_of_reread_doubles(channels: int) -> None:
    weight = np.zeros((channels, 3, 1, 1), np.int8)
    graph = occurrence(FUSE.subgraph, {"2": weight, "8": weight[:1]})
    np.random.seed(4)
    assert FUSE().apply(graph) == 1
    state = np.random.get_state()[2]  # type: ignore[index]
    np.random.seed(4)
    words = np.random.rand(channels // 2).view(np.int32)
    assert np.random.get_state()[2] == state  # type: ignore[index]
    assert words.shape == (channels // 2 * 2,)
    first, second = (n.input[2] for n in graph.node if n.op_type == "Conv")
    assert [t.name for t in graph.initializer[-2:]] == [first, second]
    assert first != second
    assert all(same(arrays(graph)[name], words) for name in (first, second))
    assert sorted(n.op_type for n in graph.node).count("LeakyRelu") == 2


@pytest.mark.parametrize(("missing", "error"), [("2", KeyError), ("101", KeyError), ("103", KeyError)])
def test_a_missing_link_of_the_normalization(missing: str, error: type[Exception]) -> None:
    graph = GraphProto()
    add_tensor(graph, "w", np.zeros((4, 1), np.int8))
    links = {key: value for key, value in {"2": "w", "101": "b", "103": "c"}.items() if key != missing}
    with pytest.raises(error, match=missing):
        FUSE()._on_replace_subgraph(graph, [], {}, links)
    with pytest.raises(TypeError, match="NoneType"):
        FUSE()._on_replace_subgraph(graph, [], {}, None)  # type: ignore[arg-type]
    assert len(graph.initializer) == 1


def attribute(name: str, value: str) -> Any:
    return helper.make_attribute(name, value)


@pytest.mark.parametrize(
    ("attributes", "coordinates", "rounding"),
    [
        ({}, "half_pixel", "round_prefer_floor"),
        ({"mode": "linear", "coordinate_transformation_mode": "align_corners"}, "align_corners", "round_prefer_floor"),
        ({"nearest_mode": "ceil", "cubic_coeff_a": -0.5, "extrapolation_value": 1.0}, "half_pixel", "ceil"),
    ],
)
def test_resize_keeps_two_attributes(attributes: dict[str, Any], coordinates: str, rounding: str) -> None:
    graph = occurrence(RESIZE.subgraph, {}, {0: attributes, 1: {"scale": 0.5, "offset": 2.0}})
    set_attributes(graph.node[0], coordinate_transformation_mode="last", nearest_mode="last")
    if "coordinate_transformation_mode" not in attributes:
        coordinates = "last"
    rounding = attributes.get("nearest_mode", "last")
    weight, bias = np.ones((2, 3, 1, 1), np.int8), np.array([5, 6], np.int32)
    add_tensor(graph, "w", weight)
    add_tensor(graph, "b", bias)
    graph.node.add(op_type="Conv", input=["t8", "w", "b"], output=["y"])
    assert RESIZE().apply(graph) == 1
    assert [n.op_type for n in graph.node] == ["TesselQuant", "Resize", "Conv"]
    assert list(graph.node[1].attribute) == [
        attribute("coordinate_transformation_mode", coordinates),
        attribute("mode", "nearest"),
        attribute("nearest_mode", rounding),
    ]
    assert arrays(graph)["b"].tolist() == [-1, 0], "the family's correction reads the link that is called 8 here"


def test_resize_without_attributes_and_with_padding_behind() -> None:
    graph = occurrence(RESIZE.subgraph)
    plain = GraphProto()
    plain.CopyFrom(graph)
    assert RESIZE().apply(plain) == 1
    assert [a.s for a in plain.node[1].attribute] == [b"half_pixel", b"nearest", b"round_prefer_floor"]
    set_attributes(graph.node.add(op_type="Conv", input=["t8", "w"], output=["y"]), pads=[1, 1, 1, 1])
    before = graph.SerializeToString()
    assert RESIZE().apply(graph) == 0
    assert graph.SerializeToString() == before


def test_resize_links() -> None:
    """A bound "99" is not replaced, the caller's dict stays as it is, and without either the look-up fails."""
    graph = occurrence(RESIZE.subgraph)
    nodes = list(graph.node)
    padded = graph.node.add(op_type="Conv", input=["elsewhere", "w"], output=["y"])
    set_attributes(padded, pads=[1])
    links = {"8": "t8", "99": "elsewhere"}
    call = RESIZE()._on_replace_subgraph
    assert call(graph, nodes, {1: 0}, links, conv_bias_updated=set()) is False
    del links["99"]
    assert call(graph, nodes, {1: 0}, links, conv_bias_updated=set()) is True
    assert links == {"8": "t8"}
    with pytest.raises(KeyError, match="99"):
        call(graph, nodes, {1: 0}, {}, conv_bias_updated=set())
    count = len(graph.node[0].attribute)
    with pytest.raises(KeyError, match="1"):
        call(graph, nodes, {}, links, conv_bias_updated=set())
    assert len(graph.node[0].attribute) == count


@pytest.mark.parametrize(
    ("shapes", "sizes"),
    [
        ([(1, 64, 40, 40)], [-1, 64, 80, 90]),
        ([(5, 7)], [-1, 7, 80, 90]),
        ([("n", "c", 40, 40)], [-1, 0, 80, 90]),
        ([(1, 3, 4, 4), (1, 9, 4, 4)], [-1, 3, 80, 90]),
        ([(64,)], None),
        ([()], None),
        ([(64,), (1, 3, 4, 4)], None),
        ([], None),
    ],
)
def test_shape_becomes_a_constant(shapes: list[tuple[Any, ...]], sizes: list[int] | None) -> None:
    graph = occurrence(SIMPLIFY.subgraph_1, {"8": np.array([80]), "9": np.array([[90]], np.int32)})
    graph.value_info.extend(helper.make_tensor_value_info("t1", TensorProto.FLOAT, shape) for shape in shapes)
    before = graph.SerializeToString()
    assert SIMPLIFY().apply(graph) == (sizes is not None)
    if sizes is None:
        assert graph.SerializeToString() == before
        return
    assert [n.op_type for n in graph.node] == ["Resize"]
    assert same(arrays(graph)[graph.node[0].input[3]], np.array(sizes, np.int64))


def test_shape_failures_add_nothing() -> None:
    graph = occurrence(SIMPLIFY.subgraph_1, {"8": np.array([1, 2]), "9": np.array([3])})
    graph.value_info.append(helper.make_tensor_value_info("t1", TensorProto.FLOAT, (1, 2, 3, 4)))
    count = len(graph.initializer)
    call, links = SIMPLIFY()._on_replace_subgraph, {"1": "t1", "8": "t8", "9": "t9", "101": "new"}
    with pytest.raises(ValueError, match="size 1"):
        call(graph, [], {}, links)
    for missing in links:
        with pytest.raises(KeyError, match=missing):
            call(graph, [], {}, {key: value for key, value in (links | {"8": "t9"}).items() if key != missing})
    assert len(graph.initializer) == count


def products(broken: str = "") -> GraphProto:
    """A five-input concatenation whose inputs are products of dequantized tensors; the third may be spoilt."""
    graph = occurrence(PRODUCTS.subgraph)
    concat, quantize = (NodeProto.FromString(n.SerializeToString()) for n in graph.node)
    del graph.node[:]
    for k in range(1, 6):
        spoilt = broken if k == 3 else ""
        op = "Relu" if spoilt == "no dequantize" else "TesselDequant"
        graph.node.add(op_type=op, input=[f"q{k}"], output=[f"d{k}"])
        if spoilt != "no producer":
            factors = [f"d{k}", f"x{k}"][:: -1 if k % 2 else 1]
            graph.node.add(op_type="Add" if spoilt == "no product" else "Mul", input=factors, output=[f"t{k}"])
    graph.node.extend([concat, quantize])
    if broken == "padding":
        set_attributes(graph.node.add(op_type="Conv", input=["t99", "w"], output=["y"]), pads=[1])
    return graph


@pytest.mark.parametrize("broken", ["", "no producer", "no product", "no dequantize", "padding"])
def test_five_products_are_required(broken: str) -> None:
    graph = products(broken)
    before = graph.SerializeToString()
    assert PRODUCTS().apply(graph) == (not broken)
    assert (graph.SerializeToString() == before) == bool(broken)
    if not broken:
        assert [n.op_type for n in graph.node[-6:]] == ["TesselQuant"] * 5 + ["Concat"]


def test_what_is_inherited_gets_the_same_arguments() -> None:
    seen: list[Any] = []

    class Between(quant.AbstractPullUpTesselQuantTransformation):
        def _on_replace_subgraph(self, *arguments: Any, **keywords: Any) -> Any:
            seen.append((arguments, keywords))
            return "anything"

    class Own(PRODUCTS, Between):  # type: ignore[valid-type,misc]
        pass

    graph, marker = products(), object()
    nodes, links = list(graph.node[-2:]), {"99": "t99"}
    assert Own()._on_replace_subgraph(graph, nodes, marker, links, extra=marker) == "anything"
    ((arguments, keywords),) = seen
    assert arguments[0] is graph
    assert (arguments[1:], keywords) == ((nodes, marker, links), {"extra": marker})
    assert arguments[3] is links
