"""Models that another tool has quantized come out as the float graph, the ranges and the INT8 weights in them."""

from collections.abc import Callable
from pathlib import Path
from typing import Any

import numpy as np
import onnx
import pytest
from onnx import TensorProto, helper, numpy_helper

from helpers.small_graphs import model_of
from onnxgraft import Calibration, CalibrationError
from onnxgraft.calibration import Range
from onnxgraft.cli import main
from onnxgraft.evaluation import ForwardRunner
from onnxgraft.quantized_models import calibration_for, is_quantized, read_quantized

RNG = np.random.default_rng(0)
# scale and zero point of each activation; "a" reaches down to 0, where a Relu was dropped
SCALES = {"x": (1 / 64, 120), "a": (1 / 32, 0), "p": (1 / 32, 0), "t": (1 / 32, 0), "y": (1 / 4, 130)}
WEIGHTS = {"w": RNG.integers(-127, 128, (4, 2, 3, 3)), "v": RNG.integers(-127, 128, (4, 5))}
W_SCALES = np.array([1 / 256, 1 / 512, 1 / 128, 1 / 64], np.float32)
BIAS = RNG.integers(-900, 900, 4)
SAMPLE = {"x": RNG.normal(size=(1, 2, 6, 6)).astype("f")}


def tensors() -> dict[str, Any]:
    found: dict[str, Any] = {f"{name}_quantized": values.astype(np.int8) for name, values in WEIGHTS.items()}
    found |= {"w_s": W_SCALES, "w_z": np.zeros(4, np.int8), "v_s": np.float32(1 / 128), "v_z": np.int8(0)}
    for name, (scale, zero) in SCALES.items():
        found |= {f"{name}_s": np.float32(scale), f"{name}_z": np.uint8(zero)}
    return {**found, "b_quantized": BIAS.astype(np.int32), "b_s": W_SCALES * np.float32(1 / 64)}


def pair(name: str) -> list[str]:
    return [
        f"QuantizeLinear {name} {name}_s {name}_z -> {name}q",
        f"DequantizeLinear {name}q {name}_s {name}_z -> {name}d",
    ]


def with_pairs() -> onnx.ModelProto:
    lines = [
        *pair("x"),
        "DequantizeLinear:axis=0 w_quantized w_s w_z -> wd",
        "DequantizeLinear:axis=0 b_quantized b_s -> bd",
        "Conv xd wd bd -> a",
        *pair("a"),
        "GlobalMaxPool ad -> p",
        *pair("p"),
        "Flatten pd -> t",
        *pair("t"),
        "DequantizeLinear v_quantized v_s v_z -> vd",
        "MatMul td vd -> yf",
        "QuantizeLinear yf y_s y_z -> yq",
        "DequantizeLinear yq y_s y_z -> y",
    ]
    return model_of(lines, inputs={"x": [1, 2, 6, 6]}, outputs=["y"], tensors=tensors())


def with_integers() -> onnx.ModelProto:
    """The same on integers: MaxPool and Flatten pass them on."""
    lines = [
        "QuantizeLinear x x_s x_z -> x_quantized",
        "QLinearConv x_quantized x_s x_z w_quantized w_s w_z a_s a_z b_quantized -> a_quantized",
        "MaxPool a_quantized -> p_quantized",
        "Flatten p_quantized -> t_quantized",
        "QLinearMatMul t_quantized t_s t_z v_quantized v_s v_z y_s y_z -> y_quantized",
        "DequantizeLinear y_quantized y_s y_z -> y",
    ]
    model = model_of(lines, inputs={"x": [1, 2, 6, 6]}, outputs=["y"], tensors=tensors())
    model.graph.node[2].attribute.append(helper.make_attribute("kernel_shape", [4, 4]))
    return model


def simulated(model: onnx.ModelProto, ranges: dict[str, Range]) -> np.ndarray[Any, Any]:
    """Computes the float model and rounds each tensor to the 8 bits of its range on the way."""
    values: dict[str, Any] = {tensor.name: numpy_helper.to_array(tensor) for tensor in model.graph.initializer}

    def keep(name: str, value: Any) -> None:
        if name in ranges:
            scale = np.float32((ranges[name].high - ranges[name].low) / 255)
            zero = round(-ranges[name].low / scale)
            value = ((np.rint(value / scale) + zero).clip(0, 255) - zero).astype(np.float32) * scale
        values[name] = value

    keep("x", SAMPLE["x"])
    for node in model.graph.node:
        feeds = {name: values[name] for name in node.input}
        types = [helper.make_tensor_value_info(name, TensorProto.FLOAT, None) for name in (*feeds, *node.output)]
        one = helper.make_graph([node], "one", types[:-1], types[-1:])
        single = helper.make_model(one, opset_imports=model.opset_import, ir_version=8)
        keep(node.output[0], ForwardRunner(single, evaluator="reference").run(feeds)[node.output[0]])
    return np.asarray(values["y"])


@pytest.mark.parametrize("made", [with_pairs, with_integers])
def test_what_is_read_computes_the_same(made: Callable[[], onnx.ModelProto]) -> None:
    model = made()
    model.opset_import[0].version = 21  # the evaluator knows these operators from 19 on
    assert is_quantized(model)
    floats, found = read_quantized(model)
    assert not is_quantized(floats)
    operators = [node.op_type for node in floats.graph.node]
    assert operators == ["Conv", "Clip", "GlobalMaxPool" if made is with_pairs else "MaxPool", "Flatten", "MatMul"]
    # The ranges of all quantized tensors are those that 8 bits express.
    expected = {"x": (-120 / 64, 135 / 64), "a_clipped": (0, 255 / 32), "y": (-130 / 4, 125 / 4)}
    for name, ends in expected.items():
        assert (found.ranges[name].low, found.ranges[name].high) == pytest.approx(ends)
    assert len(found.ranges) == 5
    by_shape = {numbers.values.shape: numbers for numbers in found.weights.values()}
    assert np.array_equal(by_shape[4, 2, 3, 3].values, WEIGHTS["w"])
    assert (by_shape[4, 2, 3, 3].axis, by_shape[4, 5].axis) == (0, None)
    assert np.array_equal(by_shape[4, 2, 3, 3].scales, W_SCALES)
    # Not onnx's evaluator: that of 1.16 computes QLinearConv wrongly.
    (wanted,) = ForwardRunner(model, evaluator="onnxruntime").run(SAMPLE).values()
    np.testing.assert_allclose(simulated(floats, dict(found.ranges)), wanted, atol=1e-6)
    assert np.ptp(wanted) > 5


def float_model() -> onnx.ModelProto:
    """The model from which the quantized one was made, with names of its own, and the Relu."""
    lines = ["Conv in kernel -> c", "Relu c -> r", "GlobalMaxPool r -> q", "Flatten q -> f", "MatMul f matrix -> out"]
    weight = WEIGHTS["w"] * W_SCALES.reshape(-1, 1, 1, 1) * 1.001
    values = {"kernel": weight.astype("f"), "matrix": (WEIGHTS["v"] / 128).astype("f"), "bias": np.zeros(4, "f")}
    model = model_of(lines, inputs={"in": [1, 2, 6, 6]}, outputs=["out"], tensors=values)
    model.graph.node[0].input.append("bias")
    return model


def test_numbers_find_the_tensors_of_the_float_model() -> None:
    found = calibration_for(float_model(), with_pairs())
    assert {"in", "r", "q", "f", "out"} <= set(found.ranges)
    assert found.ranges["r"] == Range(0, 255 / 32)
    assert np.array_equal(found.weights["kernel"].values, WEIGHTS["w"])
    assert np.array_equal(found.weights["matrix"].values, WEIGHTS["v"])
    other = model_of(["Sigmoid in -> s", "Exp s -> out"], inputs={"in": [1, 2, 6, 6]}, outputs=["out"])
    with pytest.raises(CalibrationError, match="does not belong to this float model: only 1 of its 5 ranges"):
        calibration_for(other, with_pairs())


def test_branches_are_told_apart_by_their_weights() -> None:
    weights = {name: RNG.normal(size=(3, 3)).astype("f") for name in "uv"}
    lines = ["MatMul x u -> a", "MatMul x v -> b", "Sub a b -> y"]
    swapped = ["MatMul x v -> b2", "MatMul x u -> a2", "Sub a2 b2 -> y2"]
    scales = {"s": np.float32(0.5), "z": np.uint8(10), "s2": np.float32(0.25)}
    extra = ["QuantizeLinear a s z -> q", "DequantizeLinear q s z -> c", "QuantizeLinear b s2 z -> r"]
    quantized = model_of(
        [*lines[:2], *extra, "DequantizeLinear r s2 z -> d", "Sub c d -> y"],
        inputs={"x": [2, 3]}, outputs=["y"], tensors={**weights, **scales},
    )  # fmt: skip
    found = calibration_for(model_of(swapped, inputs={"x": [2, 3]}, outputs=["y2"], tensors=weights), quantized)
    assert found.ranges == {"a2": Range(-5, 122.5), "b2": Range(-2.5, 61.25)}


S, Z = {"s": np.float32(0.5)}, {"z": np.uint8(3), "z2": np.uint8(4)}


@pytest.mark.parametrize(
    ("lines", "message"),
    [
        (["Relu x -> y"], "the model is not quantized"),
        (["Abs s -> c", "QuantizeLinear x c -> q", "DequantizeLinear q c -> y"], "computed scale or zero point, 'c'"),
        (["QuantizeLinear x s z -> q", "DequantizeLinear q s z2 -> y"], "another scale or zero point"),
        (
            ["QuantizeLinear x s z -> q", "BitwiseNot q -> r", "DequantizeLinear r s z -> y"],
            "BitwiseNot 'node_1' reads",
        ),
        (["QuantizeLinear x s z -> y"], "the output 'y' is quantized"),
    ],
)
def test_what_cannot_be_read_is_told(lines: list[str], message: str) -> None:
    with pytest.raises(CalibrationError, match=message):
        read_quantized(model_of(lines, inputs={"x": [2]}, outputs=["y"], tensors={**S, **Z}))


def test_commands(tmp_path: Path, monkeypatch: pytest.MonkeyPatch, capsys: pytest.CaptureFixture[str]) -> None:
    monkeypatch.chdir(tmp_path)
    onnx.save(with_pairs(), "q.onnx")
    onnx.save(float_model(), "f.onnx")
    assert main(["apply", "q.onnx", "-t", "quant_conv", "-t", "quant_matmul", "-o", "out.onnx"]) == 0
    written = onnx.load("out.onnx").graph
    narrow = [numpy_helper.to_array(tensor) for tensor in written.initializer if tensor.data_type == TensorProto.INT8]
    assert all(any(np.array_equal(values, found) for found in narrow) for values in WEIGHTS.values())
    assert main(["calibrate", "--from-qdq", "q.onnx", "--float", "f.onnx", "-o", "r.json"]) == 0
    assert "the numbers of 2 weights" in capsys.readouterr().out
    assert set(Calibration.from_json(Path("r.json").read_text()).weights) == {"kernel", "matrix"}
    assert main(["calibrate", "f.onnx", "--from-qdq", "f.onnx", "-o", "n.json"]) == 1
    assert "not quantized" in capsys.readouterr().err
    assert not Path("n.json").exists()
