"""Each preparation step changes its form, keeps the function, and finds nothing on its own result."""

import re
from pathlib import Path

import numpy as np
import onnx
import pytest
from onnx import ModelProto, NodeProto, TensorProto, helper, numpy_helper

from helpers.models import fast_resize
from onnxgraft.evaluation import evaluate
from onnxgraft.evaluation.running import Array
from onnxgraft.preparation import STEPS, PreparationError, prepare

HEAD = '<ir_version: {ir}, opset_import: ["" : {opset}]> g (float[1,2,4,4] x, bool c) => ({outputs})'

# step -> operator set, outputs, the graph's initializers and nodes, how much is changed, the remaining nodes
CASES = {
    "constants of all forms; a returned one stays": (
        "make_initializers", 19, "float[2] y, float z, float a, float[2] b", """{
          one = Constant<value_float = 2.0>() two = Constant<value_ints = [1, 1]>() a = Constant<value_float = 1.5>()
          three = Constant<value = float[2] {1.0, 2.0}>() four = Constant<value_floats = [0.5, 3.0]>()
          n = Constant<value_int = 3>() text = Constant<value_strings = ["u", "v"]>() same = Size(text)
          half = Cast<to = 1>(same) sum = Add(three, four) y = Add(sum, half) m = Cast<to = 1>(n) z = Mul(one, m)
          l = Cast<to = 1>(two) s = Constant<value_string = "u">() t = Size(s) tf = Cast<to = 1>(t) b = Mul(l, tf)
        }""", 7, {"Constant": 1}),
    "constants in the file format that lists initializers as inputs": (
        "make_initializers", 9, "float[1,2,4,4] y", "{ k = Constant<value = float {2.0}>() y = Mul(x, k) }", 1, {}),
    "a constant that a body reads": (
        "make_initializers", 13, "float y", """{ k = Constant<value_float = 2.0>()
          y = If(c) <then_branch = t () => (float p) { p = Identity(k) },
                     else_branch = e () => (float q) { q = Neg(k) }> }""", 1, {"Constant": 0}),
    "identities: chains go, those that a body or the caller reads stay": (
        "resolve_identities", 13, "float[1,2,4,4] y, float[2,1,1] r, float q", """<float[2,1,1] w = {1.0, -2.0}> {
          i = Identity(w) j = Identity(i) r = Identity(j) h = Identity(w) a = Add(x, j) y = Add(a, r)
          q = If(c) <then_branch = t () => (float p) { p = ReduceSum<keepdims = 0>(h) },
                     else_branch = e () => (float p) { p = ReduceMax<keepdims = 0>(j) }> }""", 3, {"Identity": 3}),
    "transposes: the original stays for its other reader": (
        "fold_transposes", 13, "float[1,2,4,4] y, float[4,2] u", """<float[2,4] w = {1,2,3,4,5,6,7,8},
          float[4,4] only = {1,0,0,0, 2,1,0,0, 0,3,1,0, 0,0,4,1}> {
          v = Transpose(w) n = Transpose<perm = [0, 1]>(v) o = Transpose(only)
          s = MatMul(x, o) m = MatMul(w, v) k = MatMul(w, n) e = ReduceSum<keepdims = 0>(k)
          p = Add(s, e) y = Add(p, p) u = Transpose(w) }""", 3, {"Transpose": 1}),
    "convolutions without group": (
        "write_conv_group", 13, "float[1,1,4,4] y", """<float[2,1,1,1] d = {2.0, 3.0}, float[1,2,1,1] w = {1.0, -1.0}> {
          a = Conv<group = 2>(x, d) y = Conv(a, w) }""", 1, {}),
    "resizes: sizes or scales given; one that crops keeps its region": (
        "fill_resize_inputs", 13, "float[1,2,8,8] y, float[1,2,8,8] z, float[1,2,4,4] t", """<int64[4] n = {1,2,8,8},
          float[4] s = {1.0, 1.0, 2.0, 2.0}, float[4] one = {1,1,1,1}, float[8] roi = {0,0,0,0,1,1,1,1}> {
          y = Resize<mode = "nearest">(x, , , n) z = Resize<mode = "nearest">(x, , s, )
          t = Resize<mode = "linear", coordinate_transformation_mode = "tf_crop_and_resize">(x, roi, one) }""", 2, {}),
    "sizes: one constant of two, for two Resize nodes; returned, it stays, and one of one does": (
        "split_resize_sizes", 15,
        "float[1,2,6,8] y, float[1,2,6,8] z, float[1,2,6,8] q, float[1,2,4,2] a, int64[2] hw", """<
          int64[1] zero = {0}, int64[1] two = {2}, int64[1] three = {3}, int64[2] hw = {6, 8}> {
          f = Shape(x) g = Slice(f, zero, two, zero)
          k = Concat<axis = 0>(g, hw) l = Concat<axis = 0>(g, hw) y = Resize<mode = "nearest">(x, , , k)
          z = Resize<mode = "linear">(x, , , l) m = Slice(f, zero, three, zero) n = Concat<axis = 0>(m, two)
          a = Resize<mode = "nearest">(x, , , n) s = Shape<start = 0, end = 2>(x) o = Concat<axis = 0>(s, hw)
          q = Resize<mode = "nearest">(x, , , o) }""", 3, {"Shape": 2, "Slice": 3}),
    "means: as attribute; other axes, another rank and dropped axes stay": (
        "pool_means", 13, "float[1,2,1,1] y, float[1,2] z, float[1,1,1,4] t, float[1,1,1] u", """<float[1,2,3] w =
          {1,2,3,4,5,6}> { y = ReduceMean<axes = [-1, 2]>(x) z = ReduceMean<axes = [2, 3], keepdims = 0>(x)
          t = ReduceMean<axes = [1, 2], keepdims = 1>(x) u = ReduceMean<axes = [-1, 1]>(w) }""", 1,
        {"GlobalAveragePool": 1}),
    "means: axes as input": (
        "pool_means", 18, "float[1,2,1,1] y", """<int64[2] axes = {3, -2}> { r = Relu(x) y = ReduceMean(r, axes) }""",
        1, {"GlobalAveragePool": 1}),
    "no-ops: to the end, by the length, in part; padding; casts; one returned, a mask that is read": (
        "drop_no_ops", 13, "float[1,2,4,4] y, float[1,2,4,4] r, bool[1,2,4,4] mask, float[1,2,2,4] h, float[1,2,5,4] q",
        """<int64[1] n = {0}, int64[1] most = {9223372036854775807}, int64[1] two = {2}, int64[2] axes = {-2, 1},
          int64[2] low = {-7, 0}, int64[2] high = {4, 9}, int64[8] none = {0,0,0,0,0,0,0,0}, bool no = {0},
          int64[8] pads = {0,0,1,0,0,0,0,0}, float half = {0.5}> {
          a = Slice(x, n, most, two) b = Slice(a, low, high, axes) d = Pad(b, none) e = Cast<to = 1>(d)
          f = Dropout(e, half, no) y = Relu(f) r = Slice(y, n, most) g, mask = Dropout(r) i = Cast<to = 6>(g)
          j = Cast<to = 1>(i) l = Concat<axis = 1>(j) h = Slice(l, n, two, two) q = Pad(g, pads) }""", 7,
        {"Slice": 2, "Cast": 2, "Pad": 1, "Dropout": 1}),
    "computed weights: chains; what grows, and what the graph returns, stays": (
        "fold_constants", 19, "float[1,2,4,4] y, float[2] r, float[2,2] u", """<uint8[2,2] q = {1,255,128,7},
          float[2] s = {0.5, 0.25}, uint8[2] zero = {128, 3}, double[2] half = {0.5, -2.0}, int64[1] three = {3},
          int64[2] two = {2, 3}, int64[1] first = {0}, float[2,1] column = {2.0, 3.0}, int64[3] form = {2, 1, 1}> {
          w = DequantizeLinear<axis = 1>(q, s, zero) t = Transpose(w) v = Unsqueeze(t, two) g = Cast<to = 1>(half)
          m = Mul(g, s) a = Conv(x, v, m) scalar = Squeeze(three, first) axes = Unsqueeze(scalar, first)
          b = Unsqueeze(a, axes) o = Squeeze(b, axes) n = Sub(s, m) f = Div(n, s) p = Reshape(f, form) y = Mul(o, p)
          r = Mul(m, s) grown = Mul(column, s) u = Neg(grown) }""", 10, {"Mul": 3}),
    "a bias of one number, made for as many channels as the weight has; as large as a weight, it stays": (
        "fold_constants", 17, "float[1,2,4,4] y, float[64,65,16] z", """<float[2,2,1,1] w = {1, 2, 3, 4},
          int64 zero = {0}, int64[1] one = {1}, int64[3] many = {64, 65, 16}> {
          s = Shape<start = 0, end = 1>(w) e = Expand(s, one) h = Relu(x) k = CastLike(zero, h) b = Expand(k, e)
          y = Conv(h, w, b) grown = Expand(k, many) z = Neg(grown) }""", 4, {"Expand": 1}),
    "fake-quantized weights": (
        "fold_constants", 19, "float[1,2,4,4] y", """<float[2,2,1,1] w = {0.3, -9.0, 0.25, 0.1}, float s = {0.5},
          int8 z = {0}, int8 low = {-5}, int8 high = {5}> { q = QuantizeLinear(w, s, z) k = Clip(q, low, high)
          d = DequantizeLinear(k, s, z) y = Conv(x, d) }""", 3, {"Conv": 1}),
    "pads: on both sides, an unknown length with stride 1; an unknown one with stride 2 stays": (
        "write_pads", 13, "float[1,2,4,4] z, float[1,2,2,2] t, float[1,2,2,2] v",
        """<float[2,2,3,3] w = {1,2,3,4,5,6,7,8,9, 1,2,3,4,5,6,7,8,9, 1,2,3,4,5,6,7,8,9, 1,2,3,4,5,6,7,8,9},
          int64[4] form = {1,2,4,4}> { form2 = Abs(form)
          f = Reshape(x, form2) z = Conv<auto_pad = "SAME_LOWER">(f, w)
          t = MaxPool<auto_pad = "SAME_UPPER", kernel_shape = [3, 3], strides = [2, 2]>(x)
          v = MaxPool<auto_pad = "SAME_UPPER", kernel_shape = [3, 3], strides = [2, 2]>(f) }""", 2, {}),
    "equal nodes: by equal constants, chains; a returned one, two of them, an integer's, Shape and random ones stay": (
        "merge_equal_nodes", 13, "float[1,4,4,4] y, float[1,2,8,4] f, float[1,2,4,4] r, float[1,2,4,4] z, float[4] t,"
        "float[1,2,2,2] p, float[1,2,4,4] i", """<float k = {2.0}, float same = {2.0}, float[1] row = {2.0}> {
          a = Mul(x, k) b = Mul(x, same) o = Mul(x, row) d = Concat<axis = 1>(a, x) e = Concat<axis = 1>(b, x)
          f = Concat<axis = 2>(b, x) y = Sub(d, e) h = Relu(o) z = Relu(o) i = Relu(o)
          j = Add(h, h) l = Neg(j) n = Neg(j) r = Sub(l, n)
          m, w = MaxPool<kernel_shape = [2, 2], strides = [2, 2]>(h)
          v = MaxPool<kernel_shape = [2, 2], strides = [2, 2]>(h)
          u = MaxPool<strides = [2, 2], kernel_shape = [2, 2]>(z) p = Sub(u, v)
          q = RandomUniformLike(x) q2 = RandomUniformLike(x) s = Shape(q) s2 = Shape(q) s3 = Shape(q2) g = Add(s, s2)
          g2 = Add(g, s3) t = Cast<to = 1>(g2) }""", 5,
        {"RandomUniformLike": 2, "Shape": 3, "Relu": 2, "MaxPool": 2}),
    "shapes": (
        "infer_shapes", 13, "float[1,1,3,2] y", """<float[1,2,2,3] w = {1,2,3,4,5,6,7,8,9,1,2,3}> {
          a = Relu(x) b = Conv(a, w) y = Neg(b) }""", 2, {}),
}  # fmt: skip


def read(opset: int, outputs: str, body: str) -> ModelProto:
    old = opset < 10
    model = onnx.parser.parse_model(
        HEAD.format(ir=3 if old else 8, opset=opset, outputs=outputs) + re.sub(r"\s+", " ", body)
    )
    for tensor in model.graph.initializer if old else ():
        model.graph.input.append(helper.make_tensor_value_info(tensor.name, tensor.data_type, list(tensor.dims)))
    return model


def results(model: ModelProto, folder: str = "") -> dict[str, Array]:
    feeds = {"x": np.random.default_rng(3).standard_normal((1, 2, 4, 4), np.float32)}
    values: dict[str, Array] = {}
    for flag in (True, False):
        outputs = evaluate(model, {**feeds, "c": np.array(flag)}, folder=folder)
        values |= {f"{name}, {flag}": value for name, value in outputs.items()}
    return values


@pytest.mark.parametrize("case", CASES)
def test_a_step(case: str) -> None:
    step, opset, outputs, body, changed, left = CASES[case]
    model = read(opset, outputs, body)
    expected = results(model) if opset >= 10 else {}  # the evaluation does not know older ones
    assert [(done.name, done.changed) for done in prepare(model, [step])] == [(step, changed)]
    onnx.checker.check_model(model, full_check=True)
    operators = [node.op_type for node in model.graph.node]
    assert {operator: operators.count(operator) for operator in left} == left
    tolerance = 1e-6 if step == "pool_means" else 0.0
    for name, value in results(model).items() if opset >= 10 else ():
        np.testing.assert_allclose(value, expected[name], rtol=tolerance)
    again = model.SerializeToString()
    assert prepare(model, [step])[0].changed == 0
    assert model.SerializeToString() == again


@pytest.mark.parametrize(
    ("operator", "mode", "options", "pads"),
    [
        ("Conv", "SAME_UPPER", "strides = [2, 2]", [0, 0, 1, 1]),
        ("Conv", "SAME_LOWER", "strides = [2, 2]", [1, 1, 0, 0]),
        ("Conv", "SAME_UPPER", "strides = [3, 1]", [1, 1, 1, 1]),
        ("Conv", "VALID", "strides = [2, 2]", [0, 0, 0, 0]),
        ("Conv", "SAME_UPPER", "dilations = [2, 1]", [2, 1, 2, 1]),
        ("AveragePool", "SAME_LOWER", "strides = [2, 1]", [1, 1, 0, 1]),
        ("MaxPool", "SAME_UPPER", "dilations = [2, 2]", None),  # forms that runtimes compute differently stay
        ("MaxPool", "SAME_UPPER", "ceil_mode = 1", None),
        ("MaxPool", "SAME_UPPER", "strides = [4, 8]", None),
    ],
)
def test_the_numbers_of_pads(operator: str, mode: str, options: str, pads: list[int] | None) -> None:
    weights = "w" if operator == "Conv" else ""
    head = f'{operator}<auto_pad = "{mode}", kernel_shape = [3, 3], {options}>'
    model = read(19, "float[1,2,n,m] y", f"{{ y = {head}({', '.join(filter(None, ['x', weights]))}) }}")
    assert prepare(model, ["write_pads"])[0].changed == (pads is not None)
    attributes = {attribute.name: attribute for attribute in model.graph.node[0].attribute}
    assert ("auto_pad" in attributes) == (pads is None)
    assert pads is None or list(attributes["pads"].ints) == pads


def test_sorting_is_stable_and_minds_bodies() -> None:
    model = read(13, "float[1,2,4,4] y, float z", """{ a = Relu(x) b = Neg(x) k = Add(a, b) y = Abs(k) m = Constant<
        value_float = 1.0>() z = If(c) <then_branch = t () => (float p) { p = Identity(m) },
        else_branch = f () => (float q) { q = Neg(m) }> }""")  # fmt: skip
    expected, order = results(model), [2, 5, 3, 1, 0, 4]
    nodes = [NodeProto.FromString(model.graph.node[index].SerializeToString()) for index in order]
    del model.graph.node[:]
    model.graph.node.extend(nodes)
    cyclic = ModelProto.FromString(model.SerializeToString())
    cyclic.graph.node[4].input[0] = "k"
    assert prepare(model, ["sort_nodes"])[0].changed == 2
    assert [node.op_type for node in model.graph.node] == ["Neg", "Relu", "Add", "Abs", "Constant", "If"]
    for name, value in results(model).items():
        np.testing.assert_array_equal(value, expected[name])
    text = cyclic.SerializeToString()
    assert prepare(cyclic, ["sort_nodes"])[0].changed == 0
    assert cyclic.SerializeToString() == text


@pytest.mark.parametrize("readable", [True, False])
def test_weights_in_a_file_beside_the_model(tmp_path: Path, *, readable: bool) -> None:
    _, opset, outputs, body, _, _ = CASES["transposes: the original stays for its other reader"]
    model = read(opset, outputs, body)
    expected = results(model)
    for tensor in model.graph.initializer:
        tensor.CopyFrom(numpy_helper.from_array(numpy_helper.to_array(tensor), tensor.name))  # raw, as in files
    onnx.save(model, tmp_path / "m.onnx", save_as_external_data=True, location="m.data", size_threshold=0)
    model = onnx.load(tmp_path / "m.onnx", load_external_data=False)
    if not readable:
        (tmp_path / "m.data").rename(tmp_path / "other")
    assert {step.name: step.changed for step in prepare(model, folder=tmp_path)}["fold_transposes"] == 3 * readable
    if not readable:
        (tmp_path / "other").rename(tmp_path / "m.data")
    for name, value in results(model, str(tmp_path)).items():
        np.testing.assert_array_equal(value, expected[name])


def test_an_input_with_a_default_is_no_constant() -> None:
    model = read(13, "float[4,2] y", "<float[2,4] w = {1,2,3,4,5,6,7,8}> { v = Transpose(w) y = Neg(v) }")
    model.graph.input.append(helper.make_tensor_value_info("w", TensorProto.FLOAT, [2, 4]))
    assert prepare(model, ["fold_transposes"])[0].changed == 0


@fast_resize
def test_real_models_keep_their_function(example_models: list[Path]) -> None:
    """Leaves as many biases to an Identity as an exporter that writes equal ones once."""
    for path in example_models:
        model = onnx.load(path)
        shape = [dim.dim_value for dim in model.graph.input[0].type.tensor_type.shape.dim]
        images = {model.graph.input[0].name: np.random.default_rng(1).random(shape, np.float32)}
        convolutions = [node for node in model.graph.node if node.op_type == "Conv" and len(node.input) == 3]
        first: dict[int, str] = {}
        for node in convolutions:
            bias = next(tensor for tensor in model.graph.initializer if tensor.name == node.input[2])
            shared = first.setdefault(bias.dims[0], bias.name)
            if shared != bias.name:
                model.graph.initializer.remove(bias)
                model.graph.node.insert(0, helper.make_node("Identity", [shared], [bias.name]))
        expected = evaluate(model, images, evaluator="reference")
        changed = {step.name: step.changed for step in prepare(model)}
        assert changed["resolve_identities"] == len(convolutions) - len(first) > 0
        onnx.checker.check_model(model, full_check=True)
        for name, value in evaluate(model, images).items():
            np.testing.assert_array_equal(value, expected[name])
        assert not any(step.changed for step in prepare(model))


def test_steps_are_chosen_by_name() -> None:
    model = read(13, "float[1,2,4,4] y", "{ y = Neg(x) }")
    assert [step.name for step in prepare(model, reversed(list(STEPS)), skip=["sort_nodes"])] == [
        name for name in STEPS if name != "sort_nodes"
    ]
    with pytest.raises(PreparationError, match=r"'fold_transpose': did you mean fold_transposes"):
        prepare(model, skip=["fold_transpose"])
