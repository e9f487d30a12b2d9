"""The formulas of lowered models, value by value, and what cannot be lowered."""

from typing import Any

import numpy as np
import onnx
import pytest
from onnx import TensorProto, helper

from helpers.models import Array
from helpers.occurrences import packed
from helpers.small_graphs import model_of
from onnxgraft.evaluation import HARDWARE, Convention, EvaluationError, evaluate, lower, lower_to_qdq

X = np.array([[-300.0, -0.75, -0.25, 0.25, 0.75, 1.25, 300.0]], np.float32)


def model(nodes: list[onnx.NodeProto], tensors: dict[str, Array] | None = None, **inputs: Any) -> onnx.ModelProto:
    """Inputs by name with shapes (None: unknown rank); the last node's output is the result "y"."""
    made = model_of([], inputs=inputs or {"x": [1, 7]}, outputs=["y"], tensors=tensors)
    made.graph.node.extend(nodes)
    return made


def node(op: str, inputs: str, output: str = "y", **attributes: Any) -> onnx.NodeProto:
    return helper.make_node(op, inputs.split(), [output], **attributes)


@pytest.mark.parametrize(
    ("attributes", "scale", "offset"),
    [
        ({}, 1, 0),
        ({"scale": 2.0, "offset": 0.0}, 2, 0),
        ({"scale": 2.0, "offset": 1.5}, 2, 1.5),
        ({"scale": 2, "offset": "1"}, 2, 0),  # an integer counts, a string does not
    ],
)
def test_quantize(attributes: dict[str, Any], scale: float, offset: float) -> None:
    made = model([node("TesselQuant", "x", **attributes)])
    np.testing.assert_array_equal(evaluate(made, {"x": X})["y"], X * np.float32(scale) + np.float32(offset))
    rounded = evaluate(made, {"x": X}, Convention(rounding=True))["y"]
    np.testing.assert_array_equal(rounded, np.clip(np.rint(X * scale + offset), -128, 127))


@pytest.mark.parametrize("shape", [[1, 3], [2, 3, 2], [1, 3, 2, 2], None])
@pytest.mark.parametrize("element_type", ["float32", "float64"])
@pytest.mark.parametrize("count", [1, 3])
def test_dequantize(shape: list[int] | None, element_type: Any, count: int) -> None:
    scales = np.array([0.5, 0.1, -3.0], np.float32)[:count]
    made = model([node("TesselDequant", "x w")], {"w": packed(scales, upper=77)}, x=shape)
    x = np.arange(np.prod(shape or [2, 3, 4]), dtype=np.float32).reshape(shape or [2, 3, 4])
    result = evaluate(made, {"x": x}, Convention(element_type=element_type))["y"]
    assert result.dtype == np.float32
    np.testing.assert_array_equal(result, x * scales.reshape(-1, *[1] * (x.ndim - 2)))


def test_wide_sums_are_exact_in_float64() -> None:
    weight = np.full((1, 1024, 1, 1), 127, np.int8)
    bias = np.array([2**31 - 1], np.int32)
    lines = ["TesselQuant x -> q", "Conv q w b -> y"]
    made = model_of(lines, inputs={"x": [1, 1024, 1, 1]}, outputs=["y"], tensors={"w": weight, "b": bias})
    x = np.full((1, 1024, 1, 1), 127, np.float32)
    assert evaluate(made, {"x": x}, Convention(element_type="float64"))["y"].item() == 127 * 127 * 1024 + 2**31 - 1


@pytest.mark.parametrize("opset", [11, 17])
def test_what_the_reference_evaluator_gets_wrong(opset: int) -> None:
    """A normalization for inference before operator set 14, and a transposed convolution in groups."""
    made = model([node("ConvTranspose", "x w", "c", group=2), node("BatchNormalization", "c s b m v", epsilon=1.0)],
                 {"w": np.arange(4, dtype=np.float32).reshape(2, 2, 1, 1), "s": np.full(4, 2, "f"),
                  "b": np.arange(4, dtype=np.float32), "m": np.ones(4, np.float32), "v": np.full(4, 3, "f")},
                 x=[1, 2, 1, 1])  # fmt: skip
    made.opset_import[0].version = opset
    y = evaluate(made, {"x": np.array([[[[1.0]], [[10.0]]]], np.float32)})["y"]
    np.testing.assert_array_equal(y.ravel(), [0 - 1 + 0, 1 - 1 + 1, 20 - 1 + 2, 30 - 1 + 3])


def test_only_operands_of_quantized_operators_become_floating_point() -> None:
    """Indices and shape arithmetic in 32-bit integers stay; a tensor that is both exists twice."""
    initializers: dict[str, Array] = {
        "w": np.arange(-2, 2, dtype=np.int8).reshape(2, 2),
        "both": np.array([1, 0], np.int32),
        "w2": np.array([[3, 4], [5, 6]], np.int8),
    }
    lines = ["TesselQuant x -> q", "MatMul q w -> m", "Add m both -> a", "Gather:axis=1 a both -> g",
             "Gather:axis=0 w2 both -> h", "Cast:to=1 h -> f", "Add f g -> y"]  # fmt: skip
    made = model_of(lines, inputs={"x": [2, 2]}, outputs=["y"], tensors=initializers)
    made.graph.input.append(helper.make_tensor_value_info("w", TensorProto.INT8, [2, 2]))
    made.graph.output[0].CopyFrom(helper.make_tensor_value_info("y", TensorProto.FLOAT, [2, 2]))
    before = made.SerializeToString()
    x = np.array([[1, 2], [3, 4]], np.float32)
    expected = (x @ initializers["w"] + [1, 0])[:, [1, 0]] + [[5, 6], [3, 4]]
    np.testing.assert_array_equal(evaluate(made, {"x": x})["y"], expected)
    lowered = lower(made)
    onnx.checker.check_model(lowered, full_check=True)
    assert made.SerializeToString() == before
    assert [value.name for value in lowered.graph.input] == ["x"]
    types = {t.name: t.data_type for t in lowered.graph.initializer if t.name in initializers}
    assert types == {"both": TensorProto.INT32, "w2": TensorProto.INT8}


@pytest.mark.parametrize(
    ("sizes", "axes", "opset"), [([-1, -1, 4, 6], None, 11), ([-1, -1, 4, 6], None, 13), ([6, -1], [3, 1], 18)]
)
def test_sizes_of_minus_one_keep_the_size(sizes: list[int], axes: list[int] | None, opset: int) -> None:
    attributes: dict[str, Any] = {"axes": axes} if axes else {}
    tensors: dict[str, Array] = {"none": np.zeros(0, "f"), "sizes": np.array(sizes)}
    made = model([node("Resize", "x none none sizes", mode="nearest", **attributes)], tensors, x=["n", 2, 2, 3])
    made.opset_import[0].version = opset
    onnx.checker.check_model(lower(made), full_check=True)  # operator set 11 requires empty tensors, not omitted ones
    x = np.arange(36, dtype=np.float32).reshape(3, 2, 2, 3)
    expected = x.repeat(2, axis=3) if axes else x.repeat(2, axis=2).repeat(2, axis=3)
    np.testing.assert_array_equal(evaluate(made, {"x": x})["y"], expected)


def test_errors() -> None:
    quantize = node("TesselQuant", "x")
    old = model([quantize])
    old.opset_import[0].version = 10
    body = helper.make_graph([quantize], "body", [], [helper.make_tensor_value_info("y", TensorProto.FLOAT, None)])
    words = packed(np.ones(2, np.float32))
    faults = {
        "operator set 10 is too old to evaluate: 11 is needed": old,
        "TesselQuant 'y' is inside a nested body": model([node("If", "x", then_branch=body, else_branch=body)]),
        "TesselDequant 'y': its second input must be an initializer": model([node("TesselDequant", "x x")]),
        "2 scales need axis 1, the input is of rank 1": model([node("TesselDequant", "x w")], {"w": words}, x=[2]),
        "no value is given for the graph inputs z": model([node("Add", "x z")], x=[1], z=[1]),
        "Unknown 'y' cannot be computed": model([node("Unknown", "x")]),
    }
    for message, made in faults.items():
        with pytest.raises(EvaluationError, match=message):
            evaluate(made, {"x": X})


STEPS = {"s": packed(np.array([0.5, 2, 1, 0.25], "f")), "one": packed(np.array([0.5], "f"))}
WEIGHTS: dict[str, Array] = {
    "w": np.arange(-36, 36, dtype=np.int8).reshape(4, 2, 3, 3),
    "wide": np.arange(-64, 80, 2, dtype=np.int8).reshape(2, 4, 3, 3),
    "b": np.array([5, -3, 100, 0], np.int32),
    "g": np.arange(-10, 14, dtype=np.int8).reshape(6, 4),
    **STEPS,
}


@pytest.mark.parametrize(
    ("lines", "shape"),
    [
        ([node("TesselQuant", "x", "q", scale=2.0, offset=3.0), node("Conv", "q w b", "c", pads=[1] * 4),
          node("TesselDequant", "c s")], [1, 2, 4, 4]),
        ([node("TesselQuant", "x", "q", scale=2.0, offset=3.0), node("Concat", "q q", "j", axis=1),
          node("Conv", "j wide", "c"), node("TesselDequant", "c one")], [1, 2, 4, 4]),
        ([node("TesselQuant", "x", "q", scale=0.5, offset=-7.0), node("MatMul", "q g", "m"), node("Add", "b m", "a"),
          node("TesselDequant", "a one")], [2, 3, 6]),
        ([node("TesselQuant", "x", "q", scale=4.0), node("Gemm", "q g b", "m", beta=2.0),
          node("TesselDequant", "m s")], [3, 6]),
        ([node("TesselQuant", "x", "q", scale=4.0), node("MaxPool", "q", "p", kernel_shape=[2, 2]),
          node("TesselDequant", "p one")], [1, 2, 4, 4]),
    ],
    ids=["offset and padding", "offset through Concat", "MatMul with Add", "Gemm by channel", "pool alone"],
)  # fmt: skip
@pytest.mark.parametrize("opset", [12, 13, 17])
def test_pairs_of_quantize_linear_compute_the_same(lines: list[onnx.NodeProto], shape: list[int], opset: int) -> None:
    read = {name for line in lines for name in line.input}
    made = model(lines, {name: values for name, values in WEIGHTS.items() if name in read}, x=shape)
    made.opset_import[0].version = opset
    pytest.importorskip("onnxruntime")  # onnx's evaluator has no scales per channel before operator set 19
    lowered = lower_to_qdq(made)
    onnx.checker.check_model(lowered, full_check=True)
    assert not any(line.op_type.startswith("Tessel") for line in lowered.graph.node)
    # No ties at these scales.
    x = (np.random.default_rng(1).integers(-40, 40, shape) + 0.0625).astype(np.float32)
    expected = evaluate(made, {"x": x}, HARDWARE)["y"]
    assert expected.std() > 1
    found = evaluate(lowered, {"x": x}, evaluator="onnxruntime")["y"]
    np.testing.assert_array_equal(found, expected)


@pytest.mark.parametrize(
    ("lines", "message"),
    [
        ([node("TesselQuant", "x", offset=0.5)], "its offset is 0.5, where QuantizeLinear needs a whole INT8"),
        ([node("TesselQuant", "x", scale=-1.0)], "its scale is -1, where QuantizeLinear needs a positive one"),
        ([node("TesselQuant", "x", "q"), node("Conv", "q w")], "Conv 'y': its sums do not end in a TesselDequant"),
        ([node("TesselQuant", "x", "q"), node("LeakyRelu", "q")], "LeakyRelu 'y' computes with quantized values"),
        ([node("TesselQuant", "x", "q"), node("Conv", "q w", "c"), node("TesselDequant", "c s", "d"),
          node("TesselDequant", "c one")], "its input is also dequantized by other scales"),
    ],
)  # fmt: skip
def test_what_has_no_form_with_quantize_linear(lines: list[onnx.NodeProto], message: str) -> None:
    with pytest.raises(EvaluationError, match=message):
        lower_to_qdq(model(lines, WEIGHTS, x=[1, 2, 4, 4]))
