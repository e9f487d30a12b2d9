"""Cases that the models of the callbacks do not cover: direct calls, errors half-way, exact names, replaced functions.

A whole `apply` is compared with a model of each class on random graphs, in `test_callback_model.py`.
"""

from contextlib import nullcontext
from typing import Any

import numpy as np
import pytest
from google.protobuf import __version__ as protobuf_version
from onnx import GraphProto, NodeProto, TensorProto, helper, numpy_helper

from helpers.classes import patterns
from helpers.occurrences import Array, add_tensor, arrays, occurrence, same, set_attributes
from onnxgraft import quant, transform_utilities
from oracle.callbacks import packed

WEIGHT, BIAS = np.arange(-8, 16, dtype=np.int8).reshape(4, 6, 1, 1), np.arange(4, dtype=np.int32)
CORRECTION = -(WEIGHT.sum(axis=(1, 2, 3)) * 2.0).astype(np.int32)
QUANT, PULL_UP = quant._QuantTransformation, quant.ChangeTesselQuantTransformationV2
FUSE, RESIZE = quant.FuseQuantBatchNormTransformation, quant.ReplaceResizeQuantTransformation
SIMPLIFY, PRODUCTS = quant.SimplifyShapeV2Transformation, quant.ReplaceConcatQuantTransformationV10
ROLES: dict[str, Any] = {"weight": ("1", "101"), "bias": ("2", "102"), "scale": ("104",)}
LINKS = {"1": "w", "2": "b", "101": "w8", "102": "b32", "104": "s"}


def with_tensors(graph: GraphProto | None = None, **tensors: Array) -> GraphProto:
    """The graph with initializers, "w" and "b" if no others are given."""
    made = GraphProto() if graph is None else graph
    for name, values in (tensors or {"w": WEIGHT, "b": BIAS}).items():
        add_tensor(made, name, values)
    return made


def test_the_methods_of_the_quantizing_base() -> None:
    base, graph = QUANT(), with_tensors(w=np.zeros((4, 2), np.float32), b=BIAS)
    np.random.seed(3)
    weight, shape = base._update_weights(graph, True, weight_names=["w", "w8"])
    bias, one = base._update_bias(graph, ["b", "b32"]), base._update_tesseldequant((1,), "s")
    many = base._update_tesseldequant(size=(300,), scale_name="t")
    np.random.seed(3)
    drawn = np.random.randint(-128, 127, size=(4, 2), dtype=np.int8)
    assert weight == numpy_helper.from_array(drawn.transpose(), "w8")
    assert shape == (4, 2)
    assert bias == numpy_helper.from_array(np.random.randint(-18, 13, size=4, dtype=np.int32), "b32")
    assert (one, many) == tuple(packed(n, np.random.rand(k).astype(np.float32)) for n, k in (("s", 1), ("t", 300)))
    with pytest.raises(TypeError):
        base._update_tesseldequant(None, "s")  # type: ignore[arg-type]
    for name in "wb":
        assert quant.QuantConvTransformation()._check_current_precision(graph, {"1": name}, input_name="1")
    with pytest.raises(KeyError, match="2"):
        quant.QuantConvTransformation()._check_current_precision(graph, {"1": "w"}, "2")
    node = graph.node.add()
    for _ in range(2):
        base._update_tesselquant(graph, {5: 0}, tessel_quant_idx=5)
    with pytest.raises(IndexError):
        base._update_tesselquant(graph, {0: 7}, 0)
    assert [(a.name, a.f) for a in node.attribute] == [("scale", 1.0), ("offset", 0.0)] * 2
    links = {key: name for key, name in LINKS.items() if key not in ("2", "102")}
    for mode, count in (("conv", 4), ("gemm", 1), ("matmul", 1), ("other", 4)):
        base._update_quant_weights_operators(graph, links, ROLES, mode)
        assert [list(t.dims) for t in graph.initializer[-2:]] == [[4, 2], [count]], "an unbound bias is omitted"


@pytest.mark.parametrize(
    ("roles", "links", "error"),
    [
        ({key: ROLES[key] for key in ("bias", "scale")}, {}, KeyError),
        (ROLES | {"bias": ()}, {}, IndexError),
        (ROLES, {"2": "nowhere"}, ValueError),
        (ROLES, {"2": ""}, ValueError),  # "" is present
    ],
)
def test_a_failure_adds_no_initializer(roles: dict[str, Any], links: dict[str, str], error: type[Exception]) -> None:
    graph = with_tensors()
    with pytest.raises(error):
        QUANT()._update_quant_weights_operators(graph, LINKS | links, roles)
    assert graph == with_tensors()


def test_everything_is_looked_up_when_it_is_used(monkeypatch: pytest.MonkeyPatch) -> None:
    """A subclass's methods, the module's names and the siblings' functions can all be replaced."""
    graph = with_tensors(w=WEIGHT.astype(np.float32), b=BIAS)
    graph.node.extend([NodeProto(op_type="TesselQuant"), NodeProto(op_type="Gemm")])
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
    assert Own()._on_replace_subgraph(graph, [], {0: 0}, LINKS)
    assert asked == [("w",), ("w",)]
    assert [(t.name, t.data_type) for t in graph.initializer[2:]] == [("w8", 5), ("b/b32", 0), ("s", 13)]

    class Fewer(quant.QuantConvTransformation):
        def _update_quant_weights_operators(self, graph: Any, links: Any, input_names: Any, mode: str) -> None:  # type: ignore[override]
            assert mode == "conv"

    assert Fewer()._on_replace_subgraph(graph, [], {0: 0}, LINKS), "the default of transpose is the method's own"
    monkeypatch.setattr(quant, "np", None)
    with pytest.raises(AttributeError, match="random"):
        quant.QuantConvTransformation()._on_replace_subgraph(graph, [], {0: 0}, LINKS)
    wrong: Any
    for wrong, message in (([[]] * 3, "too many values"), ([[]], "need more than 1 value"), ([[]] * 2, "need more")):
        monkeypatch.setattr(transform_utilities, "get_init", lambda *_, wrong=wrong: wrong)
        with pytest.raises(ValueError, match=message):
            QUANT()._update_bias(graph, ["b", "c"])


def quantized(*reading: tuple[str, ...]) -> GraphProto:
    """A pull-up occurrence with offset 2 and convolutions after it, by the names of their weights and biases."""
    graph = with_tensors(occurrence(PULL_UP.subgraph_2, {}, {1: {"offset": 2.0}}))
    for number, names in enumerate(reading):
        graph.node.add(op_type="Conv", input=["t99", *names], output=[f"y{number}"])
    return graph


@pytest.mark.parametrize(
    "taken",
    [
        "", "initializer", "equal initializer", "input", "node", "node's name", "read", "body", "custom body",
        "value_info", "sparse",
    ],
)  # fmt: skip
def test_the_name_of_a_new_bias_is_new(taken: str) -> None:
    graph = quantized(("w",))
    if "initializer" in taken:
        add_tensor(graph, "w_bias", CORRECTION if "equal" in taken else BIAS)
    elif taken == "sparse":
        graph.sparse_initializer.add().values.name = "w_bias"
    elif taken in ("input", "value_info"):
        getattr(graph, taken).append(helper.make_tensor_value_info("w_bias", TensorProto.FLOAT, None))
    elif taken:
        body = GraphProto(node=[NodeProto(op_type="Constant", output=["w_bias"])])
        node = graph.node.add(op_type="If", output=["w_bias" if taken == "node" else "i"])
        set_attributes(node, **({"then_branch": body} if "body" in taken else {}))
        node.input.extend(["w_bias"] * (taken == "read"))
        node.name, node.domain = "w_bias" * (taken == "node's name"), "custom" * (taken == "custom body")
    assert PULL_UP().apply(graph) == 1
    name = "w_bias_1" if taken else "w_bias"
    assert [list(node.input) for node in graph.node if node.op_type == "Conv"] == [["t99", "w", name]]
    assert same(arrays(graph)[name], CORRECTION)


def call(graph: GraphProto, **keywords: Any) -> Any:
    return PULL_UP()._on_replace_subgraph(graph, [graph.node[1]], {}, {"99": "t99"}, **keywords)


def test_direct_calls_of_the_pull_up() -> None:
    updated = {"other"}
    assert call(quantized(), conv_bias_updated=updated) is True
    assert updated == {"other"}
    graph = quantized(("w", "b"), ("w",), ("w", ""))
    before = graph.SerializeToString()
    for nodes, links, error, match in (
        ([graph.node[1]], {}, KeyError, "99"),
        ([], {}, IndexError, "range"),
        ([graph.node[1]], {"99": "t99"}, KeyError, "conv_bias_updated"),
    ):
        with pytest.raises(error, match=match):
            PULL_UP()._on_replace_subgraph(graph, nodes, {}, links)
        assert graph.SerializeToString() == before
    assert PULL_UP()._on_replace_subgraph(graph, [NodeProto(op_type="Relu")], {}, {}) is True, "nothing else matters"
    assert call(graph, conv_bias_updated=updated, debug=False) is True
    assert updated == {"other", "b", "w_bias"}
    assert [n.input[2] for n in graph.node if n.op_type == "Conv"] == ["b", "w_bias", "w_bias"]
    graph = with_tensors(quantized(("w", "b"), ("w", "short")), short=BIAS[:3])
    for weight, message in (("w", "broadcast"), ("computed", "'computed' is not an initializer")):
        graph.node[-1].input[1] = weight
        before = graph.SerializeToString()
        with pytest.raises(ValueError, match=message):
            call(graph, conv_bias_updated=set())
        assert graph.SerializeToString() == before


@pytest.mark.parametrize(
    "answer", [None, (None, None), ([], []), ([None, None], [None, None]), ([WEIGHT], [None]), ([WEIGHT, None], [1, 2])]
)
@pytest.mark.parametrize("failing", [0, 1])
def test_a_look_up_that_gives_nothing_refuses(answer: Any, failing: int, monkeypatch: pytest.MonkeyPatch) -> None:
    graph = quantized(("w", "b"), ("w", "b"))
    real, calls = transform_utilities.get_init, iter(range(9))
    monkeypatch.setattr(
        transform_utilities, "get_init", lambda g, names: answer if next(calls) == failing else real(g, names)
    )
    before = graph.SerializeToString()
    assert call(graph, conv_bias_updated=set()) is False
    assert graph.SerializeToString() == before


@pytest.mark.parametrize(("returned", "left"), [("copy", (5, 66)), ("second", (0, 66)), ("stranger", (0, 5))])
def test_the_record_that_a_look_up_returned_goes(
    returned: str, left: tuple[int, int], monkeypatch: pytest.MonkeyPatch
) -> None:
    """If it is not the first of its name, its contents identify it; if it is missing, everything stays as it was."""
    graph = with_tensors(quantized(("w", "b")), b=BIAS + 5)
    first, second = graph.initializer[-2:]
    record = {"copy": TensorProto.FromString(first.SerializeToString()), "second": second}.get(returned)
    answers = {("w",): ([WEIGHT], [TensorProto()]), ("b",): ([BIAS], [record or TensorProto(name="b")])}
    monkeypatch.setattr(transform_utilities, "get_init", lambda _, names: answers[tuple(names)])
    before = graph.SerializeToString()
    expected = pytest.raises(ValueError, match="for 'b' is not in graph") if returned == "stranger" else nullcontext()
    with expected:
        call(graph, conv_bias_updated=set())
    assert tuple(numpy_helper.to_array(tensor)[0] for tensor in graph.initializer if tensor.name == "b") == left
    assert (graph.SerializeToString() == before) == (returned == "stranger")


def test_resize_links() -> None:
    """A bound "99" is not replaced, the caller's dict stays as it is, and without either the look-up fails."""
    graph = occurrence(RESIZE.subgraph)
    nodes = list(graph.node)
    set_attributes(graph.node.add(op_type="Conv", input=["elsewhere", "w"], output=["y"]), pads=[1])
    links = {"8": "t8", "99": "elsewhere"}
    call = RESIZE()._on_replace_subgraph
    assert call(graph, nodes, {1: 0}, links, conv_bias_updated=set()) is False
    del links["99"]
    assert call(graph, nodes, {1: 0}, links, conv_bias_updated=set()) is True
    assert links == {"8": "t8"}
    count = len(graph.node[0].attribute)
    for mapping, bound, missing in (({1: 0}, {}, "99"), ({}, links, "1")):
        with pytest.raises(KeyError, match=missing):
            call(graph, nodes, mapping, bound, conv_bias_updated=set())
    assert len(graph.node[0].attribute) == count


def test_links_that_are_missing_add_nothing() -> None:
    graph = with_tensors(w=WEIGHT, one=np.array([3]), two=np.array([1, 2]))
    graph.value_info.append(helper.make_tensor_value_info("x", TensorProto.FLOAT, (1, 2, 3, 4)))
    before = graph.SerializeToString()
    sizes = {"1": "x", "8": "one", "9": "one", "101": "new"}
    for cls, links in ((FUSE, {"2": "w", "101": "b", "103": "c"}), (SIMPLIFY, sizes)):
        for missing in links:
            with pytest.raises(KeyError, match=missing):
                cls()._on_replace_subgraph(graph, [], {}, {key: name for key, name in links.items() if key != missing})
    with pytest.raises(TypeError, match="NoneType"):
        FUSE()._on_replace_subgraph(graph, [], {}, None)  # type: ignore[arg-type]
    with pytest.raises(ValueError, match="size 1"):
        SIMPLIFY()._on_replace_subgraph(graph, [], {}, sizes | {"8": "two"})
    assert graph.SerializeToString() == before


def test_what_is_inherited_gets_the_same_arguments() -> None:
    seen: list[Any] = []

    class Between(quant.AbstractPullUpTesselQuantTransformation):
        def _on_replace_subgraph(self, *arguments: Any, **keywords: Any) -> Any:
            seen.append((arguments, keywords))
            return "anything"

    class Own(PRODUCTS, Between):  # type: ignore[valid-type,misc]
        pass

    graph, marker, links = GraphProto(), object(), {"99": "t99"}
    for k in range(5):
        graph.node.add(op_type="TesselDequant", output=[f"d{k}"])
        graph.node.add(op_type="Mul", input=[f"d{k}", "x"], output=[f"t{k}"])
    nodes = [NodeProto(op_type="Concat", input=[f"t{k}" for k in range(5)])]
    assert Own()._on_replace_subgraph(graph, nodes, marker, links, extra=marker) == "anything"
    ((arguments, keywords),) = seen
    assert arguments[0] is graph
    assert (arguments[1:], keywords) == ((nodes, marker, links), {"extra": marker})
    assert arguments[3] is links


@pytest.mark.skipif(protobuf_version < "4", reason="protobuf 3 itself adds an empty record")
def test_a_record_of_another_type_leaves_nothing_half_added(monkeypatch: pytest.MonkeyPatch) -> None:
    graph = with_tensors(occurrence(quant.QuantConvTransformation.subgraph_2, {"1": WEIGHT.astype(np.float32)}))
    monkeypatch.setattr(numpy_helper, "from_array", lambda *_: NodeProto())
    with pytest.raises(TypeError, match="NodeProto"):
        quant.QuantConvTransformation().apply(graph)
    assert [tensor.name for tensor in graph.initializer] == ["t1", "w", "b"]


@pytest.mark.parametrize(("operator", "count"), [("Mul", 1), ("Add", 0)])
def test_other_readers_of_dequantized_tensors_are_no_products(operator: str, count: int) -> None:
    graph = occurrence(patterns("replace_concat_quant_v10")[0])
    for k, name in enumerate(next(node for node in graph.node if node.op_type == "Concat").input):
        graph.node.add(op_type="TesselDequant", input=[f"q{k}", "s"], output=[f"d{k}"])
        graph.node.add(op_type=operator if k == 2 else "Mul", input=[f"d{k}", "x"], output=[name])
    assert PRODUCTS().apply(graph) == count
