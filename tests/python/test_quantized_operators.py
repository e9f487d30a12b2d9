"""`quant_conv`, `quant_gemm`, `quant_matmul`: every number against the same formula in NumPy."""

from __future__ import annotations

from typing import Any

import numpy as np
import pytest
from onnx import AttributeProto, GraphProto, NodeProto, TensorProto, helper, numpy_helper

from onnxgraft import quant, transform_utilities

RNG = np.random.default_rng(7)


def initializer(name: str, *shape: int, dtype: str = "float32") -> TensorProto:
    return numpy_helper.from_array(RNG.standard_normal(shape).astype(dtype), name)


def drawn_weight(name: str, shape: tuple[int, ...], transpose: bool = False) -> TensorProto:
    drawn = np.random.randint(-128, 127, size=shape, dtype=np.int8)
    return numpy_helper.from_array(drawn.transpose() if transpose else drawn, name)


def drawn_bias(name: str, shape: tuple[int, ...]) -> TensorProto:
    return numpy_helper.from_array(np.random.randint(-18, 13, size=shape, dtype=np.int32), name)


def drawn_scales(name: str, count: int) -> TensorProto:
    bits = np.random.rand(count).astype(np.float32).view(np.uint32)
    return helper.make_tensor(name, TensorProto.UINT64, [count], [int(word) for word in bits])


def single(op: str, weight: TensorProto, bias: TensorProto | None, **attributes: Any) -> GraphProto:
    """Conv or Gemm between "x" and "y"."""
    inputs = ["x", weight.name] + ([bias.name] if bias else [])
    tensors = [weight] + ([bias] if bias else [])
    node = helper.make_node(op, inputs, ["y"], name="op", **attributes)
    return helper.make_graph([node], op, [], [helper.make_tensor_value_info("y", 1, None)], tensors)


def product(weight: TensorProto, bias: TensorProto | None, first: bool = False) -> GraphProto:
    nodes = [helper.make_node("MatMul", ["x", "w"], ["m" if bias else "y"])]
    if bias:
        nodes.append(helper.make_node("Add", ["b", "m"] if first else ["m", "b"], ["y"]))
    tensors = [weight] + ([bias] if bias else [])
    return helper.make_graph(nodes, "p", [], [helper.make_tensor_value_info("y", 1, None)], tensors)


CASES: dict[str, tuple[Any, ...]] = {
    # name: class, graph, expected chain, weight shape, transposed, bias shape, number of scales
    "conv": (quant.QuantConvTransformation, single("Conv", initializer("w", 6, 3, 5, 2), initializer("b", 6)),
             ["TesselQuant", "Conv", "TesselDequant"], (6, 3, 5, 2), False, (6,), 6),
    "conv without bias": (quant.QuantConvTransformation, single("Conv", initializer("w", 4, 3, 1, 1), None),
                          ["TesselQuant", "Conv", "TesselDequant"], (4, 3, 1, 1), False, None, 4),
    "conv of one channel": (quant.QuantConvTransformation, single("Conv", initializer("w", 1, 3, 1, 1), None),
                            ["TesselQuant", "Conv", "TesselDequant"], (1, 3, 1, 1), False, None, 1),
    "gemm": (quant.QuantGemmTransformation, single("Gemm", initializer("w", 5, 7), initializer("b", 7)),
             ["TesselQuant", "Gemm", "TesselDequant"], (5, 7), False, (7,), 1),
    "gemm transposed": (quant.QuantGemmTransformation,
                        single("Gemm", initializer("w", 7, 5), initializer("b", 1, 7), transB=1, alpha=0.5),
                        ["TesselQuant", "Gemm", "TesselDequant"], (7, 5), True, (1, 7), 1),
    "gemm plain, stated": (quant.QuantGemmTransformation, single("Gemm", initializer("w", 5, 7), None, transB=0),
                           ["TesselQuant", "Gemm", "TesselDequant"], (5, 7), False, None, 1),
    "matmul": (quant.QuantMatMulTransformation, product(initializer("w", 2, 5, 7), None),
               ["TesselQuant", "MatMul", "TesselDequant"], (2, 5, 7), False, None, 1),
    "matmul and add": (quant.QuantMatMulTransformation, product(initializer("w", 5, 7), initializer("b", 7)),
                       ["TesselQuant", "MatMul", "Add", "TesselDequant"], (5, 7), False, (7,), 1),
    "add and matmul": (quant.QuantMatMulTransformation, product(initializer("w", 5, 7), initializer("b", 7), True),
                       ["TesselQuant", "MatMul", "Add", "TesselDequant"], (5, 7), False, (7,), 1),
}  # fmt: skip


@pytest.mark.parametrize("case", CASES)
def test_an_operator_becomes_a_quantized_chain(case: str) -> None:
    transformation, before, chain, shape, transposed, bias_shape, scale_count = CASES[case]
    graph = GraphProto()
    graph.CopyFrom(before)
    np.random.seed(11)
    assert transformation().apply(graph) == 1
    assert [node.op_type for node in graph.node] == chain
    quantize, operator, dequantize = graph.node[0], graph.node[1], graph.node[-1]
    assert [(a.name, a.type, a.f) for a in quantize.attribute] == [
        ("scale", AttributeProto.FLOAT, 1.0), ("offset", AttributeProto.FLOAT, 0.0)]  # fmt: skip
    trans_b = [a for a in operator.attribute if a.name == "transB"]
    assert [(a.type, a.i) for a in trans_b] == ([(AttributeProto.INT, 0)] if operator.op_type == "Gemm" else [])
    assert [a for a in operator.attribute if a.name != "transB"] == [
        a for a in before.node[0].attribute if a.name != "transB"]  # fmt: skip

    np.random.seed(11)
    expected = [drawn_weight(operator.input[1], shape, transposed)]
    if bias_shape:
        bias_name = graph.node[2].input[1] if chain[2] == "Add" else operator.input[2]
        expected.append(drawn_bias(bias_name, bias_shape))
    expected.append(drawn_scales(dequantize.input[1], scale_count))
    assert list(graph.initializer) == expected

    after = graph.SerializeToString()
    state = np.random.get_state()[1].tolist()  # type: ignore[index]
    assert transformation().apply(graph) == 0
    assert graph.SerializeToString() == after
    assert np.random.get_state()[1].tolist() == state, "a refused occurrence draws nothing"  # type: ignore[index]


def chain_links(graph: GraphProto) -> dict[str, str]:
    graph.node.extend([NodeProto(op_type="TesselQuant"), NodeProto(op_type="Gemm")])
    return {"1": "w", "2": "b", "101": "w8", "102": "b32", "104": "s"}


@pytest.mark.parametrize("dtype", ["int8", "uint8", "int32", "float16", "float64"])
def test_precision_check(dtype: str) -> None:
    graph = GraphProto(initializer=[initializer("w", 3, dtype=dtype)])
    check = quant.QuantConvTransformation()._check_current_precision
    assert check(graph, {"1": "w"}, "1") is (dtype != "int8")
    with pytest.raises(KeyError, match="2"):
        check(graph, {"1": "w"}, input_name="2")


def test_the_base_methods_one_by_one() -> None:
    base = quant._QuantTransformation()
    graph = GraphProto(initializer=[initializer("w", 4, 2), initializer("b", 4)])
    np.random.seed(3)
    weight, shape = base._update_weights(graph, True, weight_names=["w", "w8"])
    bias, one, many = base._update_bias(graph, ["b", "b32"]), base._update_tesseldequant((1,), "s"), None
    many = base._update_tesseldequant(size=(300,), scale_name="t")
    np.random.seed(3)
    assert weight == drawn_weight("w8", (4, 2), True)
    assert shape == (4, 2)
    assert (bias, one, many) == (drawn_bias("b32", (4,)), drawn_scales("s", 1), drawn_scales("t", 300))
    assert max(many.uint64_data) < 2**32
    assert not many.raw_data
    with pytest.raises(TypeError):
        base._update_tesseldequant(None, "s")  # type: ignore[arg-type]

    node = graph.node.add()
    for _ in range(2):
        base._update_tesselquant(graph, {5: 0}, tessel_quant_idx=5)
    assert [a.name for a in node.attribute] == ["scale", "offset"] * 2
    with pytest.raises(IndexError):
        base._update_tesselquant(graph, {0: 7}, 0)
    assert len(node.attribute) == 4


def test_draws_stay_inside_their_bounds() -> None:
    graph = GraphProto(initializer=[initializer("w", 200, 200), initializer("b", 20000)])
    base = quant._QuantTransformation()
    weight = numpy_helper.to_array(base._update_weights(graph, False, ["w", "v"])[0])
    bias = numpy_helper.to_array(base._update_bias(graph, ["b", "c"]))
    assert (weight.min(), weight.max(), bias.min(), bias.max()) == (-128, 126, -18, 12)


@pytest.mark.parametrize(
    ("names", "links", "error"),
    [
        ({"bias": ("2", "102"), "scale": ("104",)}, {}, KeyError),
        ({"weight": ("1", "101"), "bias": (), "scale": ("104",)}, {}, IndexError),
        ({"weight": ("1", "101"), "bias": ("2", "102"), "scale": ("104",)}, {"2": "nowhere"}, ValueError),
        ({"weight": ("1", "101"), "bias": ("2", "102"), "scale": ("104",)}, {"2": ""}, ValueError),  # "" is present
    ],
)
def test_a_failure_adds_no_initializer(names: dict[str, Any], links: dict[str, str], error: type[Exception]) -> None:
    graph = GraphProto(initializer=[initializer("w", 3, 3), initializer("b", 3)])
    before = graph.SerializeToString()
    with pytest.raises(error):
        quant._QuantTransformation()._update_quant_weights_operators(graph, chain_links(GraphProto()) | links, names)
    assert graph.SerializeToString() == before


def test_unbound_bias_and_unknown_mode() -> None:
    graph = GraphProto(initializer=[initializer("w", 3, 2)])
    roles = {"weight": ("1", "101"), "bias": ("2", "102"), "scale": ("104",)}
    links = {"1": "w", "101": "w8", "104": "s"}
    for mode, count in (("conv", 3), ("gemm", 1), ("matmul", 1), ("other", 3)):
        quant._QuantTransformation()._update_quant_weights_operators(graph, links, roles, mode)
        assert [list(t.dims) for t in graph.initializer[-2:]] == [[3, 2], [count]]


def test_the_first_trans_b_counts_and_is_removed_by_value() -> None:
    graph = GraphProto(initializer=[initializer("w", 3, 2), initializer("b", 3)])
    links = chain_links(graph)
    two = [helper.make_attribute("transB", value) for value in (1, 0)]
    graph.node[1].attribute.extend(two)
    matched = NodeProto(op_type="Gemm", attribute=two)
    np.random.seed(5)
    assert (
        quant.QuantGemmTransformation()._on_replace_subgraph(graph, [matched], {0: 0, 1: 1}, links, debug=True) is True
    )
    assert [a.i for a in graph.node[1].attribute] == [0, 0]
    np.random.seed(5)
    assert graph.initializer[2] == drawn_weight("w8", (3, 2), True)


def test_everything_is_looked_up_when_it_is_used(monkeypatch: pytest.MonkeyPatch) -> None:
    """A subclass's methods, the module's names and the siblings' functions may all be replaced."""
    graph = GraphProto(initializer=[initializer("w", 3, 2), initializer("b", 3)])
    links = chain_links(graph)
    asked: list[tuple[str, ...]] = []
    real = transform_utilities.get_init

    def spy(*arguments: Any) -> Any:
        asked.append(arguments[1])
        return real(*arguments)

    class Own(quant.QuantConvTransformation):
        def _update_bias(self, graph: GraphProto, bias_names: Any) -> TensorProto:
            return TensorProto(name="/".join(bias_names))

    monkeypatch.setattr(transform_utilities, "get_init", spy)
    monkeypatch.setattr(np.random, "randint", lambda low, high, size, dtype: np.full(size, high - low, dtype="int16"))
    assert Own()._on_replace_subgraph(graph, [], {0: 0}, links)
    assert asked == [("w",), ("w",)]
    assert [(t.name, t.data_type) for t in graph.initializer[2:]] == [("w8", 5), ("b/b32", 0), ("s", 13)]
    monkeypatch.setattr(quant, "np", None)
    with pytest.raises(AttributeError, match="random"):
        quant.QuantConvTransformation()._on_replace_subgraph(graph, [], {0: 0}, links)
    for wrong, message in (
        (([], [], []), "too many values"),
        (([],), "need more than 1 value"),
        (([], []), "need more"),
    ):
        monkeypatch.setattr(transform_utilities, "get_init", lambda *_, wrong=wrong: wrong)
        with pytest.raises(ValueError, match=message):
            quant._QuantTransformation()._update_bias(graph, ["b", "c"])


def test_a_record_of_another_type_leaves_nothing_half_added(monkeypatch: pytest.MonkeyPatch) -> None:
    graph = single("Conv", initializer("w", 2, 1, 1, 1), None)
    monkeypatch.setattr(numpy_helper, "from_array", lambda *_: NodeProto())
    with pytest.raises(TypeError, match="NodeProto"):
        quant.QuantConvTransformation().apply(graph)
    assert [tensor.name for tensor in graph.initializer] == ["w"]
