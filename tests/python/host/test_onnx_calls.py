"""Models that make onnx's C++ functions end the process do not end ours: the work is done in a child."""

import subprocess
import sys

import numpy as np
import onnx
import pytest
from onnx import TensorProto, helper, numpy_helper

from helpers.small_graphs import model_of
from onnxgraft.preparation import prepare
from onnxgraft.verification import verify

SLICE = "Slice a start end -> y"
VALUES = {"start": np.array([0]), "end": np.array([2]), "ids": np.array([[0, 1]]), "minus": np.array([-5] * 8)}


def negative_input() -> onnx.ModelProto:
    return model_of(["Relu x -> a", SLICE], inputs={"x": [1, 3, -1, 8]}, outputs=["y"], tensors=VALUES)


def negative_elsewhere() -> onnx.ModelProto:
    """In `value_info`, in an initializer, in the value of a `Constant`."""
    lines = ["Unknown x -> a", SLICE, "Slice w start end -> b", "Slice c start end -> d"]
    model = model_of(lines, inputs={"x": [2]}, outputs=["y", "b", "d"], tensors=VALUES)
    tensor = TensorProto(name="w", data_type=TensorProto.FLOAT, dims=[-2, 3])
    model.graph.initializer.append(tensor)
    model.graph.node.insert(0, helper.make_node("Constant", [], ["c"], value=tensor))
    model.graph.value_info.append(helper.make_tensor_value_info("a", TensorProto.FLOAT, [-4, 2]))
    return model


def negative_by_computation() -> onnx.ModelProto:
    lines = ["Pad x minus -> a", SLICE]
    return model_of(lines, inputs={"x": [1, 3, 2, 2]}, outputs=["y"], tensors=VALUES)


def negative_in_a_body() -> onnx.ModelProto:
    body = negative_input().graph
    lines = ["Relu x -> a"]
    model = model_of(lines, inputs={"x": [1, 3, 4, 8]}, outputs=["a"], tensors=VALUES)
    model.graph.initializer.append(numpy_helper.from_array(np.array(True), "truth"))
    del body.input[:]
    node = helper.make_node("If", ["truth"], ["z"], then_branch=body, else_branch=body)
    body.value_info.append(helper.make_tensor_value_info("a", TensorProto.FLOAT, [1, 3, -1, 8]))
    model.graph.node.append(node)
    return model


def negative_batch_dims() -> onnx.ModelProto:
    lines = ["GatherND:batch_dims=-5 x ids -> y"]
    return model_of(lines, inputs={"x": [1, 3, 8, 8]}, outputs=["y"], tensors=VALUES)


MODELS = {make.__name__: make for make in list(globals().values()) if getattr(make, "__name__", "").startswith("negat")}


def work(name: str) -> None:
    """Everything that calls onnx."""
    for step in (prepare, lambda model: verify(model, model)):
        try:
            step(MODELS[name]())
        except Exception as error:
            print(type(error).__name__, error)


@pytest.mark.parametrize("name", MODELS)
def test_the_process_goes_on(name: str) -> None:
    code = f"import test_onnx_calls as t; t.work({name!r}); print('fine')"
    paths = [*sys.path, __file__.rpartition("/")[0]]
    run = subprocess.run(
        [sys.executable, "-c", f"import sys; sys.path[:] = {paths!r}; {code}"], capture_output=True, text=True
    )
    assert (run.returncode, run.stdout.splitlines()[-1:]) == (0, ["fine"]), run.stderr
