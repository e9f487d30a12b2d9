"""Steps that compute new weights, on random small models: the function before and after, and exceptions."""

import logging
from collections.abc import Callable
from pathlib import Path
from typing import Any

import numpy as np
import numpy.typing as npt
import onnx
import pytest
from onnx import ModelProto, TensorProto, helper, numpy_helper
from onnx.reference import ReferenceEvaluator

from onnxgraft.evaluation.reference_operators import evaluator
from onnxgraft.preparation import prepare

Array = npt.NDArray[Any]
PARAMETERS = ("scale", "shift", "mean", "variance")


class Maker:
    """A model being built: an input x of shape [1, 4, 5, 5], random initializers, outputs with the given names."""

    def __init__(self, seed: int = 0, opset: int = 17, dtype: str = "float32") -> None:
        self.rng, self.opset, self.dtype = np.random.default_rng(seed), opset, np.dtype(dtype)
        self.graph = onnx.GraphProto(name="g")
        self._describe(self.graph.input, "x", [1, 4, 5, 5])

    def weight(self, name: str, *shape: int, least: float = -1.0) -> str:
        if name not in {tensor.name for tensor in self.graph.initializer}:
            values = self.rng.uniform(least, 2.0, shape).astype(self.dtype)
            self.graph.initializer.append(numpy_helper.from_array(values, name))
        return name

    def norm(self, source: str, target: str, channels: int, which: str = "", **attributes: Any) -> None:
        names = [self.weight(which + p, channels, least=0.1 if p == "variance" else -1.0) for p in PARAMETERS]
        self.node("BatchNormalization", [source, *names], target, **attributes)

    def node(self, operator: str, inputs: list[str], target: str, **attributes: Any) -> None:
        self.graph.node.append(helper.make_node(operator, inputs, [target], **attributes))

    def model(self, *outputs: str) -> ModelProto:
        for name in outputs:
            self._describe(self.graph.output, name, [None] * 4)
        return helper.make_model(self.graph, opset_imports=[helper.make_opsetid("", self.opset)], ir_version=8)

    def _describe(self, values: Any, name: str, shape: list[Any]) -> None:
        values.append(helper.make_tensor_value_info(name, helper.np_dtype_to_tensor_dtype(self.dtype), shape))


def outputs(model: ModelProto) -> list[Array]:
    kind = helper.tensor_dtype_to_np_dtype(model.graph.input[0].type.tensor_type.elem_type)
    image = np.random.default_rng(9).uniform(-1, 1, (1, 4, 5, 5)).astype(kind)
    return [np.asarray(value) for value in evaluator(model).run(None, {"x": image})]


def operators(model: ModelProto) -> list[str]:
    return [node.op_type for node in model.graph.node]


@pytest.mark.parametrize("seed", range(24))
def test_normalizations_of_all_convolutions(seed: int) -> None:
    """Operator sets, element types, groups, with and without bias, in sequence, epsilon, other readers."""
    rng = np.random.default_rng(seed)
    opset, dtype = [11, 13, 14, 15, 17, 21][seed % 6], ["float32", "float16", "float64"][seed % 3 if seed % 6 else 0]
    maker = Maker(seed, opset, dtype)
    group, transposed = int(rng.choice([1, 2, 4])), bool(seed // 2 % 2)
    made, inner = 2 * group, 4 // group
    shape = (4, made // group, 3, 3) if transposed else (made, inner, 3, 3)
    bias = [maker.weight("b", made)] if rng.random() < 0.5 else []
    operator = "ConvTranspose" if transposed else "Conv"
    maker.node(operator, ["x", maker.weight("w", *shape), *bias], "c", group=group)
    maker.norm("c", "n", made, epsilon=float(rng.choice([1e-5, 0.5])))
    maker.norm("n", "m", made, "second")
    maker.node(operator, ["x", "w"], "other", group=group)  # shares the weight, without a normalization
    model = maker.model("m", "other")
    expected = outputs(model)
    assert prepare(model, ["fold_batch_norms"])[0].changed == 2
    onnx.checker.check_model(model, full_check=True)
    assert operators(model) == [operator] * 2
    tolerance = 0.02 if dtype == "float16" else 1e-5
    for value, wanted in zip(outputs(model), expected, strict=True):
        assert value.dtype == wanted.dtype
        np.testing.assert_allclose(value, wanted, rtol=tolerance, atol=tolerance)
    assert prepare(model)[0].changed == 0


def test_shared_weights_stay_shared() -> None:
    """Two heads with one weight: equal normalizations give one new weight, a different one gives another."""
    maker = Maker()
    maker.node("Relu", ["x"], "r")
    for target, source, which in (("a", "x", ""), ("b", "r", ""), ("c", "r", "own_")):
        maker.node("Conv", [source, maker.weight("w", 3, 4, 1, 1)], f"{target}_conv")
        maker.norm(f"{target}_conv", target, 3, which)
    model = maker.model("a", "b", "c")
    expected = outputs(model)
    assert prepare(model, ["fold_batch_norms"])[0].changed == 3
    a, b, c = (list(node.input[1:]) for node in model.graph.node if node.op_type == "Conv")
    assert a == b
    assert not set(a) & set(c)
    assert len(model.graph.initializer) == 4
    for value, wanted in zip(outputs(model), expected, strict=True):
        np.testing.assert_allclose(value, wanted, rtol=1e-5, atol=1e-5)


def _joined(maker: Maker) -> None:
    maker.node("Concat", ["c", "c"], "d", axis=1)
    maker.norm("d", "y", 6)


def _half_with_tiny_scale(maker: Maker) -> None:
    maker.norm("c", "y", 3)
    maker.graph.initializer[1].CopyFrom(numpy_helper.from_array(np.full(3, 1e-7, maker.dtype), "scale"))


def _default_of_an_input(maker: Maker) -> None:
    maker.norm("c", "y", 3)
    maker.graph.input.append(helper.make_tensor_value_info("w", TensorProto.FLOAT, [3, 4, 1, 1]))


def _second_reader(maker: Maker) -> None:
    maker.norm("c", "y", 3)
    maker.node("Relu", ["c"], "z")


def _read_in_a_body(maker: Maker) -> None:
    maker.norm("c", "y", 3)
    body = [helper.make_graph([helper.make_node(kind, ["c"], ["o"])], kind, [],
                              [helper.make_tensor_value_info("o", 1, None)]) for kind in ("Abs", "Neg")]  # fmt: skip
    maker.graph.initializer.append(helper.make_tensor("flag", TensorProto.BOOL, [], [1]))
    maker.node("If", ["flag"], "z", then_branch=body[0], else_branch=body[1])


STAYING: dict[str, tuple[int, str, Callable[[Maker], None]]] = {
    "training": (15, "float32", lambda maker: maker.norm("c", "y", 3, training_mode=1)),
    "training, old": (6, "float32", lambda maker: maker.norm("c", "y", 3)),
    "over each element": (7, "float32", lambda maker: maker.norm("c", "y", 3, spatial=0)),
    "variance below zero": (15, "float32", lambda maker: maker.norm("c", "y", 3, epsilon=-3.0)),
    "another number of channels": (15, "float32", lambda maker: maker.norm("c", "y", 4)),
    "after a Concat, as fuse_bn_quant wants it": (15, "float32", _joined),
    "precision lost": (15, "float16", _half_with_tiny_scale),
    "a weight that a caller may set": (15, "float32", _default_of_an_input),
    "a second reader": (15, "float32", _second_reader),
    "a reader in a body": (15, "float32", _read_in_a_body),
}


@pytest.mark.parametrize("case", STAYING)
def test_normalizations_that_stay(case: str) -> None:
    opset, dtype, add = STAYING[case]
    maker = Maker(0, opset, dtype)
    maker.node("Conv", ["x", maker.weight("w", 3, 4, 1, 1)], "c")
    add(maker)
    model = maker.model("y")
    text = model.SerializeToString()
    assert prepare(model, ["fold_batch_norms"])[0].changed == 0
    assert model.SerializeToString() == text


@pytest.mark.parametrize("opset", [10, 13, 21])
def test_weights_of_a_quantized_model(opset: int) -> None:
    """Per tensor before operator set 13, then per channel; a cast that an INT8 cannot hold stays computed."""
    maker = Maker(0, opset)
    scales = np.array([0.5, 0.25, 2.0] if opset > 10 else 0.5, np.float32)
    values = maker.rng.integers(-128, 128, (3, 4, 1, 1), dtype=np.int8)
    tensors: dict[str, Array] = {
        "q": values,
        "s": scales,
        "z": np.full(scales.shape, 3, np.int8),
        "big": np.array([1.0, 200.0], "f"),
    }
    maker.graph.initializer.extend(numpy_helper.from_array(array, name) for name, array in tensors.items())
    maker.node("DequantizeLinear", ["q", "s", "z"], "w", **({"axis": 0} if opset > 10 else {}))
    maker.node("Cast", ["big"], "cast", to=TensorProto.INT8)
    maker.node("Conv", ["x", "w"], "c")
    maker.node("Abs", ["cast"], "k")
    model = maker.model("c", "k")
    assert prepare(model, ["fold_constants"])[0].changed == 1
    assert operators(model) == ["Cast", "Conv", "Abs"]
    folded = numpy_helper.to_array(next(tensor for tensor in model.graph.initializer if tensor.name == "w"))
    np.testing.assert_array_equal(folded, (values - np.float32(3)) * scales.reshape(-1, 1, 1, 1))


def test_weights_in_a_file_are_read_where_they_are_folded(tmp_path: Path, caplog: pytest.LogCaptureFixture) -> None:
    """Without its file a weight stays, and this is not an error; nothing reads the one without a normalization."""
    maker = Maker()
    maker.node("Conv", ["x", maker.weight("alone", 3, 4, 3, 3)], "d")
    maker.node("Conv", ["x", maker.weight("w", 3, 4, 3, 3)], "c")
    maker.norm("c", "y", 3)
    model = maker.model("y", "d")
    expected = outputs(model)
    onnx.save(model, tmp_path / "m.onnx", save_as_external_data=True, all_tensors_to_one_file=False, size_threshold=0)
    missing, model = (onnx.load(tmp_path / "m.onnx", load_external_data=False) for _ in range(2))
    (tmp_path / "alone").rename(tmp_path / "elsewhere")
    with caplog.at_level(logging.WARNING):
        assert prepare(model, ["fold_batch_norms"], folder=tmp_path)[0].changed == 1
    assert not caplog.messages
    (tmp_path / "elsewhere").rename(tmp_path / "alone")
    onnx.load_external_data_for_model(model, str(tmp_path))
    for value, wanted in zip(outputs(model), expected, strict=True):
        np.testing.assert_allclose(value, wanted, rtol=1e-5, atol=1e-5)
    (tmp_path / "mean").unlink()
    with caplog.at_level(logging.WARNING):
        assert prepare(missing, folder=tmp_path)[-2].changed == 0
    assert "'mean' stays" in caplog.text or "'y' is not folded" in caplog.text


FUNCTIONS = """<ir_version: 10, opset_import: ["" : 17, "my" : 1]>
g (float[N] x, bool c) => (float[M] y, float[M] z, float[N] k) <float[1] s__1 = {2.0}> {
  a = my.f <axis = 0> (x, s__1) y = Neg(a) k = my.newer(x)
  z = If(c) <then_branch = t () => (float[M] p) { p = my.g(a, s__1) },
             else_branch = e () => (float[M] q) { q = Neg(a) }> }
<opset_import: ["" : 17, "third" : 1], domain: "my"> g (a, b) => (z) { s = Add(a, b) z = Mul(s, s) }
<opset_import: ["" : 17, "my" : 1], domain: "my"> f <axis> (a, b) => (z) {
  s = my.g(a, b) z = Concat<axis: int = @axis>(s, b) }
<opset_import: ["" : 18], domain: "my"> newer (a) => (z) { z = Neg(a) }"""


def test_functions_are_called_in_line() -> None:
    """Nested, in a body, with a forwarded attribute; one for another operator set stays."""
    model = onnx.parser.parse_model(FUNCTIONS.replace("\n", " "))
    feeds = {"x": np.array([-3.0, 1.0], np.float32), "c": np.array(True)}
    expected = ReferenceEvaluator(model).run(None, feeds)
    assert prepare(model, ["inline_functions"])[0].changed == 2
    onnx.checker.check_model(model)
    assert operators(model) == ["Add", "Mul", "Concat", "Neg", "newer", "If"]
    assert [function.name for function in model.functions] == ["newer"]
    assert {entry.domain for entry in model.opset_import} == {"", "my", "third"}
    for value, wanted in zip(ReferenceEvaluator(model).run(None, feeds), expected, strict=True):
        np.testing.assert_array_equal(value, wanted)
    assert prepare(model, ["inline_functions"])[0].changed == 0


@pytest.mark.parametrize(
    ("body", "reason"),
    [("z = my.f(a)", "f"), ("y1 = my.h(a) z = Neg(y1)", "h"), ("z, u = TesselQuant(a, a)", "")],
    ids=["calls itself", "by way of another", "one of the custom operators'"],
)
def test_functions_that_stay(body: str, reason: str, caplog: pytest.LogCaptureFixture) -> None:
    name = "f" if reason else "TesselQuant"
    model = onnx.parser.parse_model(
        f'<ir_version: 10, opset_import: ["" : 17, "my" : 1]> g (float[N] x) => (float[N] y) {{ y = my.{name}(x) }} '
        f'<opset_import: ["" : 17, "my" : 1], domain: "my"> {name} (a) => (z) {{ {body} }} '
        '<opset_import: ["" : 17, "my" : 1], domain: "my"> h (a) => (z) { z = my.f(a) }'
    )
    text = model.SerializeToString()
    with caplog.at_level(logging.WARNING):
        assert prepare(model, ["inline_functions"])[0].changed == 0
    assert model.SerializeToString() == text
    assert ("not inlined" in caplog.text) == bool(reason)
