"""Real numbers in quantized models: evaluated against the float model, place by place and over whole recipes."""

from collections.abc import Callable
from dataclasses import replace
from pathlib import Path
from typing import Any

import numpy as np
import onnx
import pytest
from onnx import TensorProto, helper, numpy_helper

from onnxgraft import rewrite
from onnxgraft.calibration import Calibration, CalibrationError, Range, WeightNumbers, calibrate
from onnxgraft.cli import main
from onnxgraft.evaluation import Convention, evaluate
from onnxgraft.filling import Filling
from onnxgraft.filling.equalizing import equalize
from onnxgraft.quant import QuantConvTransformation, _QuantTransformation
from onnxgraft.samples import open_data

EXACT = Convention(rounding=True, centred=True)
QUANTIZING = ["quant_conv", "quant_gemm", "quant_matmul"]
Feeds = dict[str, np.ndarray[Any, np.dtype[np.float32]]]


def make_model(text: str, shape: tuple[int, ...], weights: dict[str, Any], seed: int = 0) -> onnx.ModelProto:
    """A model from node texts in the notation of onnx's parser; weights are shapes, or arrays."""
    rng = np.random.default_rng(seed)
    graph = onnx.parser.parse_graph(f"g (float{list(shape)} x) => (float y) {{ {text} }}")
    graph.output[0].type.tensor_type.ClearField("shape")
    for name, value in weights.items():
        values = rng.normal(size=value) if isinstance(value, tuple) else np.asarray(value)
        graph.initializer.append(numpy_helper.from_array(values.astype(np.float32), name))
    return helper.make_model(graph, opset_imports=[helper.make_opsetid("", 17)], ir_version=8)


def samples(model: onnx.ModelProto, count: int = 4, low: float = -1.0, high: float = 3.0) -> list[Feeds]:
    """Inputs that are not symmetric about 0, so that a wrong offset is visible."""
    rng = np.random.default_rng(7)
    dims = [size.dim_value for size in model.graph.input[0].type.tensor_type.shape.dim]
    return [{model.graph.input[0].name: rng.uniform(low, high, dims).astype(np.float32)} for _ in range(count)]


def copy(model: onnx.ModelProto) -> onnx.ModelProto:
    return onnx.ModelProto.FromString(model.SerializeToString())


def filled(model: onnx.ModelProto, steps: Any = QUANTIZING, **settings: Any) -> onnx.ModelProto:
    result = copy(model)
    calibration = settings.pop("calibration", None) or calibrate(model, samples(model), evaluator="reference")
    rewrite(result, steps, calibration=Filling(calibration, **settings))
    return result


def decibels(before: onnx.ModelProto, after: onnx.ModelProto) -> float:
    """Signal to noise of `after` on the calibrated samples."""
    signal = noise = 0.0
    for feeds in samples(before):
        first, second = (evaluate(model, feeds, EXACT)["y"] for model in (before, after))
        signal, noise = signal + float((first**2).sum()), noise + float(((first - second) ** 2).sum())
    return 10 * np.log10(signal / noise) if noise else np.inf


def outputs(model: onnx.ModelProto) -> list[Any]:
    return [evaluate(model, feeds, EXACT)["y"] for feeds in samples(model)]


IMAGE, ROWS = (1, 4, 9, 9), (5, 16)
OPERATORS: dict[str, tuple[str, tuple[int, ...], dict[str, Any]]] = {
    "conv": ("y = Conv<pads=[1,1,1,1]>(x, w, b)", IMAGE, {"w": (6, 4, 3, 3), "b": (6,)}),
    "conv without bias": ("y = Conv<pads=[2,0,1,1], strides=[2,2]>(x, w)", IMAGE, {"w": (6, 4, 3, 3)}),
    "conv with auto_pad": ('y = Conv<auto_pad="SAME_UPPER", strides=[2,2]>(x, w, b)', IMAGE,
                           {"w": (6, 4, 3, 3), "b": (6,)}),
    "grouped conv": ("y = Conv<group=2, dilations=[2,2]>(x, w, b)", IMAGE, {"w": (6, 2, 3, 3), "b": (6,)}),
    "conv over one axis": ("y = Conv(x, w)", (2, 3, 20), {"w": (1, 3, 5)}),
    "two conv of one weight": ("a = Conv(x, w, b) c = Relu(x) d = Conv(c, w, b) y = Add(a, d)", IMAGE,
                               {"w": (4, 4, 1, 1), "b": (4,)}),
    "gemm": ("y = Gemm<alpha=0.5, beta=-2.0, transB=1>(x, w, b)", ROWS, {"w": (8, 16), "b": (8,)}),
    "gemm without bias": ("y = Gemm<alpha=-3.0>(x, w)", ROWS, {"w": (16, 8)}),
    "gemm, bias along rows": ("y = Gemm(x, w, b)", ROWS, {"w": (16, 8), "b": (5, 1)}),
    "gemm, one bias": ("y = Gemm(x, w, b)", ROWS, {"w": (16, 8), "b": ()}),
    "gemm, full bias": ("y = Gemm<transA=1>(x, w, b)", (16, 5), {"w": (16, 8), "b": (5, 8)}),
    "product": ("m = MatMul(x, w) y = Add(m, b)", ROWS, {"w": (16, 8), "b": (8,)}),
    "product, bias first": ("m = MatMul(x, w) y = Add(b, m)", ROWS, {"w": (16, 8), "b": (1, 8)}),
    "product without bias": ("y = MatMul(x, w)", ROWS, {"w": (16, 8)}),
    "product that gains an axis": ("m = MatMul(x, w) y = Add(m, b)", ROWS, {"w": (16, 8), "b": (3, 1, 8)}),
    "product of rank 3": ("m = MatMul(x, w) y = Add(m, b)", (2, 5, 16), {"w": (16, 8), "b": (8,)}),
    "product of rank 3, other bias": ("m = MatMul(x, w) y = Add(m, b)", (2, 5, 16), {"w": (16, 8), "b": (5, 1)}),
    "product of batches": ("m = MatMul(x, w) y = Add(m, b)", (2, 5, 16), {"w": (2, 16, 8), "b": (8,)}),
    "product with a vector": ("y = MatMul(x, w)", ROWS, {"w": (16,)}),
}  # fmt: skip


@pytest.mark.parametrize("symmetric", [False, True])
@pytest.mark.parametrize("name", OPERATORS)
def test_operators_keep_their_function(name: str, symmetric: bool) -> None:
    """8 bits give 35 dB or more; a wrong offset, padding, factor or axis gives less than 20."""
    text, shape, weights = OPERATORS[name]
    model = make_model(text, shape, weights)
    result = filled(model, symmetric=symmetric)
    quantize = [node for node in result.graph.node if node.op_type == "TesselQuant"]
    assert len(quantize) == (2 if "two" in name else 1)
    offsets = [attribute.f for node in quantize for attribute in node.attribute if attribute.name == "offset"]
    cannot = symmetric or ("without bias" in name and "conv" not in name)
    cannot |= name in {"gemm, bias along rows", "gemm, one bias", "product of rank 3, other bias"}
    cannot |= name in {"product of batches", "product with a vector"}
    assert any(offset != 0 for offset in offsets) != cannot
    assert decibels(model, result) > 35


def test_given_weights_come_out_again() -> None:
    """INT8 numbers that the model was trained with, along either axis of a `Gemm`, but not those of another weight."""
    rng = np.random.default_rng(5)
    values, scales = rng.integers(-128, 128, (16, 8), np.int8), rng.uniform(0.01, 0.1, 8).astype(np.float32)
    numbers = WeightNumbers(values, scales, 1)
    for transposed in (0, 1):
        given = WeightNumbers(values.T.copy(), scales, 0) if transposed else numbers
        text = f"y = Gemm<transB={transposed}, alpha=2.0>(x, w, b)"
        for weight, is_same in ((given.floats(), True), (given.floats() * 3, False)):
            model = make_model(text, ROWS, {"w": weight, "b": (8,)})
            calibration = replace(calibrate(model, samples(model), evaluator="reference"), weights={"w": given})
            result = filled(model, calibration=calibration)
            assert decibels(model, result) > 35
            found = [numpy_helper.to_array(one) for one in result.graph.initializer if one.data_type == 3]
            assert np.array_equal(found[0], values) == is_same


def test_one_word_for_each_channel_is_worth_decibels() -> None:
    """A product of rank 2 has one scale per output channel, although its class writes one for all."""
    weight = np.random.default_rng(1).normal(size=(16, 8)) * np.logspace(-2, 0, 8)
    for text in ("y = Gemm(x, w, b)", "m = MatMul(x, w) y = Add(m, b)"):
        result = filled(make_model(text, ROWS, {"w": weight, "b": np.zeros(8)}))
        words = {tensor.name: list(tensor.dims) for tensor in result.graph.initializer if tensor.data_type == 13}
        assert list(words.values()) == [[8]]


def test_a_bias_that_does_not_fit_widens_its_channel_and_dead_channels_stay_exact() -> None:
    """Weights of 1e-9, of 0 with a bias, and of 0 without."""
    weight = np.random.default_rng(2).normal(size=(4, 4, 1, 1)) * np.array([1, 1e-9, 0, 0]).reshape(4, 1, 1, 1)
    model = make_model("y = Conv(x, w, b)", IMAGE, {"w": weight, "b": [1.0, 50.0, -3.0, 0.0]})
    result = copy(model)
    report = rewrite(result, "quant_conv", calibration=calibrate(model, samples(model), evaluator="reference"))
    assert report.filled is not None
    assert report.filled.operators[0].widened == 1
    assert "coarser scales" in str(list(report.filled.lines()))
    for first, second in zip(outputs(model), outputs(result), strict=True):
        np.testing.assert_allclose(second[:, 1:], first[:, 1:], atol=1e-6 * 50)


SPREAD = np.logspace(-1.5, 0, 4).reshape(4, 1, 1, 1)
RNG = np.random.default_rng(1)
# Weights of the depthwise convolution compensate the spread, so that each channel counts.
DEPTHWISE = {"w": RNG.normal(size=(4, 4, 1, 1)) * SPREAD, "d": RNG.normal(size=(8, 1, 3, 3)) / SPREAD.repeat(2, 0),
             "b": SPREAD.ravel(), "s": [0.01], "q": 1 / SPREAD[:, :, 0], "f": SPREAD[:, :, 0],
             "g": SPREAD.ravel()}  # fmt: skip
# The producers of the channels, and how many tensors are divided with them.
EQUALIZED: dict[str, tuple[str, int]] = {
    "conv, two readers": ("c = Conv(x, w, b) r = Relu(c) e = Conv<group=4>(r, d) h = Conv<group=4>(r, d) "
                          "y = Add(e, h)", 2),
    "constants, one of them shared": ("h = HardSwish(x) k = Mul(h, f) m = Add(s, k) z = Conv<group=4>(m, d) "
                                      "y = Add(z, s)", 2),
    "hard swish": ("k = HardSigmoid(x) m = Mul(x, k) z = Div(m, q) y = Conv<group=4>(z, d)", 1),
    "normalization": ("n = BatchNormalization(x, g, b, b, g) y = Conv<group=4, pads=[1,1,1,1]>(n, d)", 1),
    "not with another reader": ("c = Conv(x, w, b) r = Relu(c) e = Conv<group=4>(r, d) t = Transpose(r) "
                                "u = ReduceSum<keepdims=0>(t) y = Add(e, u)", 0),
    "not through other functions": ("c = Conv(x, w, b) r = Sigmoid(c) y = Conv<group=4>(r, d)", 0),
}  # fmt: skip


@pytest.mark.parametrize("name", EQUALIZED)
def test_channels_are_brought_to_one_range(name: str) -> None:
    """The float model stays the same, and the quantized one gains."""
    text, count = EQUALIZED[name]
    model = make_model(text, IMAGE, {key: value for key, value in DEPTHWISE.items() if f"{key}" in text})
    calibration = calibrate(model, samples(model), evaluator="reference", prepare=False)
    graph = copy(model)
    assert len(equalize(graph.graph, calibration).names) == count
    assert decibels(model, graph) > 100
    settings = {"calibration": Calibration.from_json(calibration.to_json())}
    plain, equal = (
        filled(model, equalize=choice, **settings, leave=["c"] * ("c =" in text)) for choice in (False, True)
    )
    assert decibels(model, equal) > decibels(model, plain) + (6 if count else -0.01)


def test_the_report_says_what_share_is_cut_off() -> None:
    """Values are uniform: the range of 90 percent leaves a tenth out. Ranges without counts have no share."""
    model = make_model("y = Conv(x, w)", IMAGE, {"w": (6, 4, 3, 3)})
    found = calibrate(model, samples(model, 50), method="percentile", percentile=90.0, evaluator="reference")
    for calibration, share in ((found, pytest.approx(0.1, abs=0.005)), (replace(found, outside={}), None)):
        report = rewrite(copy(model), "quant_conv", calibration=calibration)
        assert [one.saturated for one in report.numbers] == [share]


@pytest.mark.parametrize(("low", "high"), [(0.0, 0.0), (0.0, 1e-40), (2.0, 2.0), (-5.0, -1.0), (0.0, 1e5)])
def test_ranges_at_the_edge(low: float, high: float) -> None:
    """Always zero, next to nothing, one value, one sign, huge: 0 stays 0, and nothing overflows."""
    model = make_model("y = Conv<pads=[1,1,1,1]>(x, w, b)", IMAGE, {"w": (2, 4, 3, 3), "b": (2,)})
    calibration = Calibration({"x": Range(low, high)}, "min-max", 1, "")
    result = filled(model, calibration=calibration)
    zeros = {"x": np.zeros(IMAGE, np.float32)}
    np.testing.assert_allclose(
        evaluate(result, zeros, EXACT)["y"], evaluate(model, zeros)["y"], atol=max(high, 1) * 1e-4
    )


NORMALIZED = (
    "a = Conv(x, w1) b = Conv<pads=[0,0,0,0]>(x, w2) c = Concat<axis={}>(a, b) "
    "d = BatchNormalization<epsilon=0.01>(c, gamma, beta, mean, variance) y = LeakyRelu<alpha=0.2>(d)"
)


@pytest.mark.parametrize(("first", "second", "axis"), [(6, 6, 1), (5, 3, 1), (3, 4, -3), (4, 4, 2)])
def test_normalization_goes_into_both_branches(first: int, second: int, axis: int) -> None:
    """Odd counts, unequal counts, negative and zero factors, branches that share their channels."""
    count = first + second if axis in {1, -3} else first
    rng = np.random.default_rng(3)
    weights: dict[str, Any] = {"w1": (first, 4, 1, 1), "w2": (second, 4, 1, 1), "beta": (count,), "mean": (count,)}
    weights |= {"gamma": np.r_[0.0, -1.5, rng.normal(size=count - 2)], "variance": rng.uniform(0.5, 2, count)}
    model = make_model(NORMALIZED.format(axis), IMAGE, weights)
    result = filled(model, ["quant_conv", "fuse_bn_quant"])
    assert "BatchNormalization" not in {node.op_type for node in result.graph.node}
    assert decibels(filled(model), result) > 60
    assert decibels(model, result) > 35


GATE = "p = GlobalAveragePool(x) a = Conv<group=1>(p, w1, b1) r = Relu(a) c = Conv<group=1>(r, w2, b2) y = Sigmoid(c)"


def test_float_again_means_the_float_weights() -> None:
    weights = {"w1": (3, 4, 1, 1), "b1": (3,), "w2": (4, 3, 1, 1), "b2": (4,)}
    model = make_model(GATE, IMAGE, weights)
    assert decibels(model, filled(model, ["quant_conv", "change_gap_conv"])) > 120


def test_merging_unequal_parameters_warns_and_keeps_the_function() -> None:
    """Scales of tensors with large values differ by less than 0.001 and count as equal."""
    text = "a = Conv(x, w1, b) q = TesselQuant<scale=0.0015, offset=-30.0>(x) d = TesselDequant(q, s) y = Add(a, d)"
    model = make_model(text, IMAGE, {"w1": (4, 4, 1, 1), "b": (4,)})
    words = np.array([1 / 0.0015], np.float32).view(np.uint32).astype(np.uint64)
    model.graph.initializer.append(helper.make_tensor("s", TensorProto.UINT64, [1], words))
    calibration = Calibration({"x": Range(-20000.0, 90000.0)}, "min-max", 1, "")
    before, after = copy(model), copy(model)
    rewrite(before, ["quant_conv"], calibration=calibration)
    report = rewrite(after, ["quant_conv", "replace_quant_any"], calibration=calibration)
    assert len(report.warnings) == 2
    assert "1 quantize nodes existed before the run" in report.warnings[0]
    assert "merging quantize nodes changes numbers at Conv" in report.warnings[1]
    feeds = {"x": np.random.default_rng(0).uniform(-20000, 90000, IMAGE).astype(np.float32)}
    first, second = (evaluate(one, feeds, EXACT)["y"] for one in (before, after))
    assert 0 < np.abs(first - second).max() < 0.02 * np.abs(first).max()


def test_pools_that_are_joined_keep_their_order() -> None:
    """`replace_concat_quant_v1` would join them in another order."""
    pools = " ".join(f"p{k} = MaxPool<kernel_shape=[{k},{k}], pads={[k // 2] * 4}>(x)" for k in (3, 5, 7))
    model = make_model(
        f"{pools} c = Concat<axis=1>(p3, p5, p7, x) y = Conv(c, w, b)", IMAGE, {"w": (3, 16, 1, 1), "b": (3,)}
    )
    moved = filled(model, ["quant_conv", "replace_concat_quant_v1"])
    assert len([node for node in moved.graph.node if node.op_type == "TesselQuant"]) == 4
    for first, second in zip(outputs(filled(model)), outputs(moved), strict=True):
        np.testing.assert_array_equal(first, second)


JOINED = (
    "a0 = Conv(x, w1, b1) a = LeakyRelu(a0) b0 = Conv(x, w2, b2) b = LeakyRelu(b0) c = Concat<axis=1>(a, b) "
    "d = Conv(c, w3, b3) e = LeakyRelu(d) y = Conv(e, w4)"
)


@pytest.mark.parametrize("steps", [["replace_concat_quant_v2"], ["replace_quant_v2", "delete_concat"], "yolov5"])
def test_moving_and_splitting_keep_the_function(steps: Any) -> None:
    """Offsets are added to biases where a quantize node moves, and subtracted where a convolution is split."""
    weights = {"w1": (3, 4, 1, 1), "b1": (3,), "w2": (5, 4, 1, 1), "b2": (5,), "w3": (4, 8, 1, 1), "b3": (4,)}
    model = make_model(JOINED, IMAGE, weights | {"w4": (2, 4, 1, 1)})
    result = filled(model, steps if isinstance(steps, str) else ["quant_conv", *steps])
    for first, second in zip(outputs(filled(model)), outputs(result), strict=True):
        np.testing.assert_allclose(first, second, rtol=1e-5, atol=1e-5)
    assert decibels(model, result) > 30


class Drawing(_QuantTransformation):
    def apply(self, graph: onnx.GraphProto, debug: bool = False) -> int:
        raise AssertionError

    def get_simple_name(self) -> str:
        return "drawing"


def _not_finite(model: onnx.ModelProto) -> None:
    model.graph.initializer[0].CopyFrom(numpy_helper.from_array(np.full((6, 4, 3, 3), np.nan, np.float32), "w"))


def _unseen(model: onnx.ModelProto) -> None:
    model.graph.node[0].input[0] = "z"
    model.graph.node.insert(0, helper.make_node("Neg", ["x"], ["z"]))


FAULTS: list[tuple[str, Any, dict[str, Any], Callable[[onnx.ModelProto], None] | None]] = [
    ("no range for tensor 'z'", QUANTIZING, {}, _unseen),
    ("Conv 'y' cannot be filled: its weight has values that are not finite", QUANTIZING, {}, _not_finite),
    ("'yy' cannot be left float: .* did you mean y", QUANTIZING, {"leave": ["yy"]}, None),
    ("'drawing' draws numbers", [QuantConvTransformation, Drawing], {}, None),
]


@pytest.mark.parametrize(("message", "steps", "settings", "spoil"), FAULTS)
def test_places_that_cannot_be_filled_are_errors(
    message: str, steps: Any, settings: dict[str, Any], spoil: Any
) -> None:
    model = make_model(*OPERATORS["conv"])
    calibration = calibrate(model, samples(model), evaluator="reference")
    if spoil:
        spoil(model)
        calibration = replace(calibration, fingerprint="")
    before = model.SerializeToString()
    with pytest.raises(Exception, match=message):
        rewrite(model, steps, prepare=False, calibration=Filling(calibration, **settings))
    assert model.SerializeToString() == before


def test_what_is_left_float_is_said() -> None:
    model = make_model("a = Conv(x, w, b) y = Conv(a, w2)", IMAGE, {"w": (4, 4, 1, 1), "b": (4,), "w2": (2, 4, 1, 1)})
    calibration = calibrate(model, samples(model), evaluator="reference")
    report = rewrite(model, "quant_conv", calibration=Filling(calibration, leave=["a"]))
    assert report.replaced == report.refused == 1
    assert report.filled is not None
    assert [(left.output, left.reason) for left in report.filled.left_float] == [("a", "asked for")]
    assert type(report).from_json(report.to_json()) == report


def test_whole_recipes_on_the_examples(example_models: list[Path]) -> None:
    for path in example_models:
        model = onnx.load(path)
        data = samples(model, 1, -2.0, 2.0)
        calibration = calibrate(model, data)
        recipe = "resnet" if "resnet" in path.name else "yolov5"
        results = []
        for steps in (["quant_conv", "quant_gemm"], recipe):
            result = copy(model)
            rewrite(result, steps, calibration=calibration)
            results.append(evaluate(result, data[0], EXACT, evaluator="onnxruntime"))
        float_ones = evaluate(model, data[0], evaluator="onnxruntime")
        for name, values in float_ones.items():
            noises = [float(((result[name] - values) ** 2).mean()) for result in results]
            assert 10 * np.log10(float((values**2).mean()) / noises[0]) > 15
            assert 10 * np.log10(noises[1] / noises[0]) < 0.5


def test_another_model_and_a_graph_alone_are_refused() -> None:
    model = make_model(*OPERATORS["conv"])
    calibration = calibrate(model, samples(model), evaluator="reference")
    with pytest.raises(CalibrationError, match="the ranges are of another model"):
        rewrite(make_model(*OPERATORS["conv"], seed=1), "quant_conv", calibration=calibration)
    with pytest.raises(TypeError, match="a calibration belongs to a model"):
        rewrite(model.graph, "quant_conv", calibration=calibration)


DEEP = "a0 = Conv(x, w1, b1) a = Relu(a0) c0 = Conv<group=4>(a, w2) c = Relu(c0) d = Conv(c, w3, b3) y = Relu(d)"


def deep() -> onnx.ModelProto:
    """The second convolution has few multiply-adds and weights that 8 bits represent badly."""
    weights: dict[str, Any] = {"w1": (4, 4, 3, 3), "b1": (4,), "w3": (6, 4, 3, 3), "b3": (6,)}
    outlier = np.full((4, 1, 1, 1), 0.7)
    return make_model(DEEP, (1, 4, 12, 12), weights | {"w2": outlier})


def test_what_hurts_most_stays_float_within_the_share() -> None:
    model = deep()
    calibration = calibrate(model, samples(model))
    wide = {**calibration.ranges, "a": Range(0.0, 40 * calibration.ranges["a"].high)}
    calibration = Calibration(wide, "min-max", 4, "")
    data = open_data(iter(samples(model)), model)
    report = rewrite(model, "quant_conv", calibration=Filling(calibration, float_share=0.05, data=data))
    assert report.filled is not None
    assert [left.output for left in report.filled.left_float] == ["c0"]
    assert "of the noise, at" in report.filled.left_float[0].reason
    assert report.filled.decibels["1 operators left float"] > report.filled.decibels["all operators quantized"] + 6


@pytest.mark.parametrize("version", [13, 17, 18])
@pytest.mark.parametrize("name", ["conv", "conv without bias", "gemm", "product", "product of rank 3", "grouped conv"])
def test_corrected_biases_take_the_mean_error_off(name: str, version: int) -> None:
    """The measurement next to the float operator equals the filled model's result."""
    model = make_model(*OPERATORS[name])
    model.opset_import[0].version = version
    calibration = calibrate(model, samples(model))
    data = open_data(samples(model), model)
    errors = []
    for correct in (False, True):
        result = filled(model, calibration=calibration, data=data, bias_correction=correct)
        difference = [b - a for a, b in zip(outputs(model), outputs(result), strict=True)]
        axes = (0, 1, 3, 4) if "conv" in name else tuple(range(np.ndim(difference) - 1))
        errors.append(float(np.abs(np.mean(difference, axis=axes)).max()))
    assert errors[1] < 0.5 * errors[0] or errors[1] < 1e-4


def test_the_command_line_fills(
    tmp_path: Path, monkeypatch: pytest.MonkeyPatch, capsys: pytest.CaptureFixture[str]
) -> None:
    """In one command, and in two; errors take one line and write nothing."""
    monkeypatch.chdir(tmp_path)
    model = deep()
    onnx.save_model(model, "m.onnx")
    np.savez("data.npz", x=np.stack([feeds["x"] for feeds in samples(model)]))
    base = ["apply", "m.onnx", "-t", "quant_conv", "-q"]
    assert main([*base, "-o", "one.onnx", "--calibrate", "data.npz", "--report", "r.html"]) == 0
    assert "filled: 3 operators" in Path("r.html").read_text(encoding="utf-8")
    assert main(["calibrate", "m.onnx", "--data", "data.npz", "-o", "r.json", "-q"]) == 0
    assert main([*base, "-o", "two.onnx", "--calibration", "r.json", "--data", "data.npz"]) == 0
    assert Path("one.onnx").read_bytes() == Path("two.onnx").read_bytes()
    assert decibels(model, onnx.load("one.onnx")) > 25
    assert (
        main(["apply", "m.onnx", "-t", "quant_conv", "-o", "three.onnx", "--calibration", "r.json", "--leave", "a0"])
        == 0
    )
    assert "left float: Conv 'a0': asked for" in capsys.readouterr().out
    for wrong in (["--float-macs", "5%"], ["--calibration", "r.json", "--float-macs", "5%"], ["--leave", "y"],
                  ["--calibrate", "data.npz", "--float-macs", "150%"]):  # fmt: skip
        assert main([*base, "-o", "bad.onnx", *wrong]) == 2
    onnx.save_model(make_model(*OPERATORS["conv"]), "other.onnx")
    assert main(["apply", "other.onnx", "-t", "quant_conv", "-o", "bad.onnx", "--calibration", "r.json"]) == 1
    assert "the ranges are of another model" in capsys.readouterr().err
    assert not Path("bad.onnx").exists()


@pytest.mark.parametrize("steps", [["quant_conv"], ["quant_conv", "change_gap_conv"]])
def test_models_of_16_bit_floats_stay_so(steps: list[str]) -> None:
    weights = {"w1": (3, 4, 1, 1), "b1": (3,), "w2": (4, 3, 1, 1), "b2": (4,)}
    model = make_model(GATE, IMAGE, weights)
    for tensor in model.graph.initializer:
        tensor.CopyFrom(numpy_helper.from_array(numpy_helper.to_array(tensor).astype(np.float16), tensor.name))
    for value in (*model.graph.input, *model.graph.output):
        value.type.tensor_type.elem_type = TensorProto.FLOAT16
    feeds = [{"x": one["x"].astype(np.float16)} for one in samples(model)]
    calibration = calibrate(model, feeds)
    result = copy(model)
    rewrite(result, steps, calibration=Filling(calibration, data=open_data(feeds, model), float_share=0.3))
    for one in feeds:
        first, second = evaluate(model, one)["y"], evaluate(result, one, EXACT, evaluator="onnxruntime")["y"]
        assert second.dtype == np.float16
        np.testing.assert_allclose(second, first, atol=0.02)
