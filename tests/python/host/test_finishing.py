"""Completion after the transformations: weights and biases that fit, declared types, listed initializers."""

from typing import Any

import numpy as np
import onnx
import pytest
from onnx import TensorProto, helper, numpy_helper

from helpers.occurrences import packed
from helpers.small_graphs import Array, model_of
from onnxgraft import rewrite
from onnxgraft.engine import Report
from onnxgraft.evaluation import Convention, evaluate, lower
from onnxgraft.report.report_page import report_page

EXACT = Convention(rounding=True, element_type="float64", centred=True)


def run(model: onnx.ModelProto, names: str | list[str], **options: Any) -> Report:
    return rewrite(model, names, prepare=False, **options)


def joined(shapes: tuple[Any, Any], attributes: str = "", offsets: tuple[int, int] = (0, 0), axis: int = 1) -> Any:
    """Two quantized branches of 3 and 2 channels before one convolution."""
    rng = np.random.default_rng(1)
    lines = [
        f"TesselQuant:offset={offsets[0]} a -> qa", f"TesselQuant:offset={offsets[1]} b -> qb",
        f"Concat:axis={axis} qa qb -> c", f"Conv{attributes} c w bias -> y",
        "TesselDequant y s -> d", "LeakyRelu d -> e", "TesselQuant e -> q",
    ]  # fmt: skip
    tensors: dict[str, Array] = {
        "w": rng.integers(-128, 127, (4, 5, 3, 3), dtype=np.int8),
        "bias": rng.integers(-999, 999, 4, dtype=np.int32),
        "s": packed(np.array([1, 0.5, 2, 0.25], np.float32)),
    }
    inputs = dict(zip("ab", shapes, strict=True))
    return model_of(lines, inputs=inputs, outputs=["e"], tensors=tensors)


KNOWN = (1, 3, 6, 6), (1, 2, 6, 6)


@pytest.mark.parametrize(
    "model",
    [joined(KNOWN), joined(KNOWN, offsets=(3, -5)), joined(KNOWN, axis=-3), joined(([1, 3, None, "w"], None))],
    ids=["plain", "offsets", "axis", "one"],
)
def test_split_weights_compute_what_the_joined_convolution_computed(model: onnx.ModelProto) -> None:
    rng = np.random.default_rng(2)
    inputs = {name: rng.integers(-60, 60, shape).astype("f") for name, shape in zip("ab", KNOWN, strict=True)}
    before = evaluate(model, inputs, EXACT)
    report = run(model, "delete_concat")
    assert (report.replaced, report.finished) == (1, 1)
    np.testing.assert_array_equal(before["e"], evaluate(model, inputs, EXACT)["e"])
    dims = {tensor.name: list(tensor.dims) for tensor in model.graph.initializer}
    assert [dims[node.input[1]][1] for node in model.graph.node if node.op_type == "Conv"][:2] == [3, 2]
    assert Report.from_json(report.to_json()) == report


@pytest.mark.parametrize(
    ("model", "reason"),
    [
        (joined((None, None)), "neither of 'qa' and 'qb' has a known number of channels"),
        (joined(((1, 4, 6, 6), (1, 2, 6, 6))), "branches of 4 and 2 channels do not fit a weight of 5"),
        (joined(KNOWN, axis=2), "joined along axis 2"),
        (joined(KNOWN, attributes=":group=5"), "a weight of 5 groups"),
    ],
)
def test_what_cannot_be_split_is_undone(model: onnx.ModelProto, reason: str) -> None:
    before = model.SerializeToString(deterministic=True)
    report = run(model, "delete_concat", until_stable=True)
    assert model.SerializeToString(deterministic=True) == before
    assert (report.replaced, report.finished, len(report.warnings)) == (0, 0, 1)
    assert reason in report.warnings[0]
    assert reason in " ".join(str(report).split())
    assert run(model, "delete_concat", finish=False).replaced == 1


def normalized(channels: tuple[int, int]) -> onnx.ModelProto:
    """The pattern of `fuse_bn_quant`, with convolutions of these numbers of channels."""
    lines = [
        "TesselQuant a -> qa", "Conv qa w1 -> y1", "TesselDequant y1 s -> d1",
        "TesselQuant b -> qb", "Conv qb w2 -> y2", "TesselDequant y2 s -> d2",
        "Concat:axis=1 d1 d2 -> c", "BatchNormalization c g g g g -> n", "LeakyRelu n -> e",
    ]  # fmt: skip
    weights = {f"w{at}": np.ones((size, 2, 1, 1), np.int8) for at, size in enumerate(channels, 1)}
    tensors = {**weights, "s": packed(np.ones(1, np.float32)), "g": np.ones(sum(channels), np.float32)}
    return model_of(lines, inputs=dict.fromkeys("ab", (1, 2, 3, 3)), outputs=["e"], tensors=tensors)


@pytest.mark.parametrize(("channels", "finished"), [((4, 4), 0), ((5, 5), 2), ((1, 1), 2), ((4, 3), 1), ((3, 6), 2)])
def test_biases_get_the_length_of_their_convolution(channels: tuple[int, int], finished: int) -> None:
    plain, model = normalized(channels), normalized(channels)
    assert run(plain, "fuse_bn_quant", seed=0, finish=False).replaced == 1
    assert run(model, "fuse_bn_quant", seed=0).finished == finished
    for old, new, size in zip(biases(plain), biases(model), channels, strict=True):
        drawn = old[:size]
        np.testing.assert_array_equal(new, np.concatenate([drawn, np.zeros(size - drawn.size, np.int32)]))
    inputs = {name: np.ones((1, 2, 3, 3), np.float32) for name in "ab"}
    assert evaluate(model, inputs)["e"].shape == (1, sum(channels), 3, 3)


def biases(model: onnx.ModelProto) -> list[Array]:
    tensors = {tensor.name: numpy_helper.to_array(tensor) for tensor in model.graph.initializer}
    return [tensors[node.input[2]] for node in model.graph.node if node.op_type == "Conv"]


@pytest.mark.parametrize("form", ["model", "graph", "new format"])
def test_old_formats_list_new_initializers_as_inputs(form: str) -> None:
    model = model_of(
        ["Conv x w -> y"], inputs={"x": (1, 2, 4, 4)}, outputs=["y"], tensors={"w": np.ones((3, 2, 1, 1), "f")}
    )
    if form != "new format":
        model.ir_version = 3
        model.graph.input.append(helper.make_tensor_value_info("w", TensorProto.FLOAT, [3, 2, 1, 1]))
    rewrite(model.graph if form == "graph" else model, "quant_conv", seed=0, prepare=False)
    listed = {value.name for value in model.graph.input} - {"x"}
    assert listed == (set() if form == "new format" else {tensor.name for tensor in model.graph.initializer})
    assert evaluate(model, {"x": np.ones((1, 2, 4, 4), np.float32)})["y"].shape == (1, 3, 4, 4)


@pytest.mark.parametrize("declared", [False, True])
def test_a_float16_model_stays_one(declared: bool) -> None:
    """Quantized values are INT8 and INT32, and dequantized ones have the type that was quantized."""
    lines = ["Conv x w -> y", "Concat:axis=1 x y -> c", "GlobalAveragePool c -> p", "Conv:group=1 p w1 b1 -> r"]
    lines += ["Relu r -> r2", "Conv:group=1 r2 w2 b2 -> t", "Sigmoid t -> z"]
    shapes = {"w": (3, 2, 1, 1), "w1": (4, 5, 1, 1), "b1": (4,), "w2": (5, 4, 1, 1), "b2": (5,)}
    rng = np.random.default_rng(3)
    tensors = {name: rng.normal(size=shape).astype(np.float16) for name, shape in shapes.items()}
    model = model_of(lines, inputs={"x": (1, 2, 4, 4)}, outputs=["z"], tensors=tensors)
    for value in (*model.graph.input, *model.graph.output):
        value.type.tensor_type.elem_type = TensorProto.FLOAT16
    report = rewrite(model, ["quant_conv", "change_gap_conv"], seed=0, prepare=["infer_shapes"] if declared else False)
    assert [step.replaced for step in report.steps] == [3, 1]
    found = {value.name: value.type.tensor_type.elem_type for value in model.graph.value_info}
    made = {kind for node in model.graph.node for name in node.output if (kind := found.get(name)) in {3, 6}}
    assert made == {TensorProto.INT8, TensorProto.INT32}
    lowered = lower(model, EXACT if not declared else Convention())
    onnx.checker.check_model(lowered, full_check=True)
    if declared:
        assert set(found.values()) == {TensorProto.FLOAT16, TensorProto.INT8, TensorProto.INT32}
    result = evaluate(model, {"x": np.ones((1, 2, 4, 4), np.float16)})["z"]
    assert (result.dtype.name, result.shape) == ("float16", (1, 5, 1, 1))


def test_entries_of_weights_that_are_gone_go_too() -> None:
    model = model_of(
        ["Conv x w -> y"], inputs={"x": (1, 2, 4, 4)}, outputs=["y"], tensors={"w": np.ones((3, 2, 1, 1), "f")}
    )
    model.graph.value_info.extend(
        helper.make_tensor_value_info(name, TensorProto.FLOAT, [3, 2, 1, 1]) for name in ("w", "unrelated")
    )
    rewrite(model, "quant_conv", seed=0)
    assert {value.name for value in model.graph.value_info} & {"w", "unrelated"} == {"unrelated"}


def test_remarks_on_changed_functions_and_warnings_of_other_operators() -> None:
    lines = ["Resize x r s z -> y", "TesselQuant y -> q", "TesselDequant q d -> out"]
    empty, one = np.zeros(0, np.float32), packed(np.ones(1, np.float32))
    tensors: dict[str, Array] = {"r": empty, "s": empty, "z": np.array([1, 2, 8, 8]), "d": one}
    model = model_of(lines, inputs={"x": (1, 2, 4, 4)}, outputs=["out"], tensors=tensors)
    model.graph.node[0].attribute.append(helper.make_attribute("mode", "linear"))
    model.graph.node.append(helper.make_node("Conv", ["out", "w"], ["conv"], domain="com.example"))
    report = run(model, ["replace_resize_quant", "quant_conv"])
    assert report.steps[0].remarks == ["1 Resize of mode linear became nearest: the function changes"]
    assert report.warnings == ["1 node is of com.example::Conv, which patterns treat as the standard Conv"]
    assert "the whole weight" in str(run(joined(KNOWN), "delete_concat", finish=False))


def test_reports_tell_the_numbers_of_each_operator() -> None:
    lines = ["TesselQuant:scale=4:offset=-3 x -> q", "Conv q w b -> y", "TesselDequant y s -> d"]
    lines += ["TesselQuant d -> r", "Concat:axis=1 r r -> j", "Conv j v -> z", "TesselDequant z s -> e"]
    tensors: dict[str, Array] = {
        "w": np.array([[[[-128]]], [[[1]]]], np.int8),
        "b": np.array([7, -9], np.int32),
        "v": np.full((1, 4, 1, 1), 2, np.int8),
        "s": packed(np.ones(1, np.float32)),
    }
    report = run(model_of(lines, inputs={"x": (1, 1, 3, 3)}, outputs=["e"], tensors=tensors), [])
    first, second = report.numbers
    assert (first.scale, first.offset, first.low, first.high) == (4, -3, -31.25, 32.5)
    assert (first.bits, second.bits) == (16, 12)  # 131 * 128 + 7 = 16775 and 128 * 8 = 1024, each with a sign
    page = report_page(run(joined(KNOWN), "delete_concat"))
    assert "1 finished; weights split between the branches" in page
    assert "Quantized operators: 2" in page
    assert "undone: Conv" in report_page(run(joined((None, None)), "delete_concat"))
