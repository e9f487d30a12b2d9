"""`verify` finds planted differences, makes valid inputs, and explains why outputs cannot agree."""

from copy import deepcopy
from pathlib import Path
from typing import Any

import numpy as np
import onnx
import pytest
from onnx import TensorProto, helper, numpy_helper

from helpers.models import make_model
from helpers.small_graphs import model_of, ones
from onnxgraft import catalogue
from onnxgraft.errors import HostError, VerificationError
from onnxgraft.verification import verify
from onnxgraft.verification.comparing import compare


def tokens() -> onnx.ModelProto:
    """A table of 5 rows looked up by ids, a second one of 2 rows by types, both summed and masked."""
    lines = [
        "Unsqueeze ids axis -> wide",
        "Gather words wide -> a",
        "Gather:axis=1 types kinds -> b",
        "MatMul picture w -> p",
        "Cast:to=1 mask -> m",
        "ReduceSum:keepdims=0 a -> s",
        "Mul m s -> masked",
    ]
    tensors = {"words": np.eye(5, 3, dtype="f"), "types": np.eye(3, 2, dtype="f"), "w": ones(7, 2)}
    names = ("ids", "mask", "kinds")
    shapes = {**{name: ["batch", "tokens"] for name in names}, "picture": ["batch", None]}
    outputs = ["masked", "b", "p"]
    model = model_of(lines, inputs=shapes, outputs=outputs, tensors={**tensors, "axis": np.array([0])})
    for value in model.graph.input[:3]:
        value.type.tensor_type.elem_type = TensorProto.INT64
    return model


def test_inputs_are_valid_and_planted_differences_are_found() -> None:
    before = tokens()
    unsorted = deepcopy(before)
    unsorted.graph.node.insert(0, unsorted.graph.node.pop())
    result = verify(before, unsorted, sizes={"tokens": 40}, runs=2)
    assert result.passed
    # The width of the picture follows from the weight; ids stay below 5 and 2 rows, otherwise the evaluator would fail.
    assert result.inputs["picture"] == "float32[1,7]"
    assert [row.shape for row in result.rows][:1] == [(1, 40)]
    after = deepcopy(before)
    after.graph.initializer[2].CopyFrom(numpy_helper.from_array(np.float32(1.001) * ones(7, 2), "w"))
    failed = verify(before, after)
    assert [row.passed for row in failed.rows] == [True, True, False]
    assert failed.rows[2].relative_error == pytest.approx(0.001, rel=0.01)
    assert "'p', written by MatMul 'node_3'" in str(failed.first_difference)
    assert not failed.passed
    assert verify(before, after, tolerance=0.01).passed


def test_quantized_models() -> None:
    """Random weights are named as the reason; models made from a quantized model are compared as such."""
    nodes = ["Relu:1->2", "Conv:2,3i,4i->5", "TesselDequant:5,6i->7"]
    after = make_model(["TesselQuant:1->2", *nodes[1:]])
    before = deepcopy(after)
    for tensor in before.graph.initializer:
        tensor.CopyFrom(numpy_helper.from_array(numpy_helper.to_array(tensor).astype(np.float32), tensor.name))
    before.graph.node[0].CopyFrom(helper.make_node("Identity", ["t1"], ["t2"]))
    before.graph.node[2].CopyFrom(helper.make_node("Identity", ["t5"], ["t7"]))
    failed = verify(before, after)
    assert not failed.passed
    assert any("drawn at random" in note for note in failed.notes)
    (row,) = [row for name, row in catalogue.rows().items() if name == "replace_quant"]
    quantized = make_model(row.pairs[0][0], {0: {"offset": 3.0}, 2: {"offset": 3.0}})
    merged = deepcopy(quantized)
    assert row.apply(merged.graph) == 1
    assert verify(quantized, merged).passed


def output_gone(model: onnx.ModelProto) -> None:
    del model.graph.output[0]


def other_shape(model: onnx.ModelProto) -> None:
    model.graph.input[0].type.tensor_type.shape.dim[1].dim_value = 3


@pytest.mark.parametrize(
    ("change", "note"),
    [
        (output_gone, "does not have the output 'masked'"),
        (other_shape, "'ids' is int64"),
        (lambda model: model.graph.input.add(name="further"), "'further'"),
    ],
)
def test_other_inputs_and_outputs_fail_with_a_note(change: Any, note: str) -> None:
    after = tokens()
    change(after)
    result = verify(tokens(), after)
    assert not result.passed
    assert note in " ".join(result.notes)


def unknown_operator(model: onnx.ModelProto) -> None:
    model.graph.node[3].op_type = "Unheard"


def rows_beyond_the_table(model: onnx.ModelProto) -> None:
    model.graph.node[1].input[1] = "far"
    model.graph.initializer.append(numpy_helper.from_array(np.array([9]), "far"))


@pytest.mark.parametrize(
    ("change", "arguments", "message"),
    [
        (unknown_operator, {}, r"the model after does not run: .*Unheard"),
        (rows_beyond_the_table, {}, r"the model after does not run: (Gather 'node_1'|.*'node_1')"),
        (output_gone, {"sizes": {"token": 3}}, "no dimension is called 'token': did you mean tokens"),
        (output_gone, {"tolerance": -1.0}, "tolerance"),
    ],
)
def test_errors_are_one_line(change: Any, arguments: Any, message: str) -> None:
    after = tokens()
    change(after)
    with pytest.raises(HostError, match=message) as error:
        verify(tokens(), after, **arguments)
    assert "\n" not in str(error.value)


NAN, INF = np.nan, np.inf


@pytest.mark.parametrize(
    ("first", "second", "verdict"),
    [
        ([NAN, INF, 2.0], [NAN, INF, 2.0], "same"),
        ([NAN, 1.0], [1.0, 1.0], "DIFFERENT"),
        ([INF, 1.0], [-INF, 1.0], "DIFFERENT"),
        ([NAN, INF], [NAN, INF], "NOT COMPARED"),
        ([NAN, INF], [INF, NAN], "DIFFERENT"),
        ([0.0, 0.0], [0.0, 1e-30], "DIFFERENT"),
        ([1e6, 1.0], [1e6, 2.0], "same"),  # relative to the scale of the whole tensor
        ([2**62], [2**62 + 1], "DIFFERENT"),
        ([[1.0]], [1.0], "DIFFERENT"),
    ],
)
def test_comparison(first: Any, second: Any, verdict: str) -> None:
    assert compare("x", np.array(first), np.array(second), None).verdict == verdict


def test_outputs_without_a_finite_element_have_a_verdict_of_their_own() -> None:
    model = model_of(["Log x -> a", "Relu a -> y", "Relu x -> z"], inputs={"x": [2]}, outputs=["y", "z"])
    negative, positive = ({"x": np.full(2, value, np.float32)} for value in (-1, 1))
    result = verify(model, model, inputs=[positive, negative])
    assert [row.verdict for row in result.rows] == ["NOT COMPARED", "same"]
    assert not result.passed
    assert not result.differs
    assert "first tensor without any finite element: 'a', written by Log" in str(result)
    assert "nothing was compared" in "".join(str(result).splitlines()[-2:])
    other = model_of(["Log x -> a", "Abs a -> y", "Relu x -> z"], inputs={"x": [2]}, outputs=["y", "z"])
    half = {"x": np.full(2, 0.5, np.float32)}
    assert verify(model, other, inputs=[negative, half]).rows[0].verdict == "DIFFERENT"
    for wrong, message in (
        ([], "there are no samples"),
        ([{}], "sample 1 has no array for the input 'x'"),
        ([half, {"y": half["x"]}], "sample 2: the model before has no input 'y', but x"),
        ([{"x": np.ones(3, np.float32)}], r"has shape \[2\], its array \[3\]"),
        ([{"x": np.ones(2)}], "has type float, its array float64"),
    ):
        with pytest.raises(VerificationError, match=message):
            verify(model, model, inputs=wrong)


def test_external_data_is_read_from_its_folder(tmp_path: Path) -> None:
    model, path = tokens(), tmp_path / "m.onnx"
    onnx.save_model(deepcopy(model), path, save_as_external_data=True, location="m.data", size_threshold=0)
    assert verify(model, onnx.load(path, load_external_data=False), folder_after=tmp_path).passed
