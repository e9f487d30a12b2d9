"""All steps on random models with difficult features: the function stays, and a second run finds nothing."""

from collections.abc import Callable
from typing import Any

import numpy as np
import onnx
import pytest
from onnx import helper, numpy_helper

from onnxgraft.evaluation import evaluate
from onnxgraft.preparation import STEPS, prepare

CHANNELS, SIZE = 2, 4


class Builder:
    """Adds random nodes; every tensor in `images` is [1, 2, 4, 4], or has no element if the model is of zero size."""

    def __init__(self, seed: int) -> None:
        self.rng = np.random.default_rng(seed)
        self.opset = int(self.rng.choice([11, 13, 17, 21]))
        self.dtype = np.dtype(self.rng.choice(["float32", "float16"], p=[0.75, 0.25]))
        self.type = helper.np_dtype_to_tensor_dtype(self.dtype)
        self.size = SIZE if self.rng.random() < 0.85 else 0
        self.graph = onnx.GraphProto(name="g")
        self.count = 0
        self.images = ["x"]
        lengths: list[Any] = [1, CHANNELS, self.size, self.size] if self.rng.random() < 0.5 else ["n", "c", "h", "w"]
        self.graph.input.append(helper.make_tensor_value_info("x", self.type, lengths))

    def node(self, operator: str, *inputs: str, **attributes: Any) -> str:
        self.count += 1
        self.graph.node.append(helper.make_node(operator, inputs, [f"t{self.count}"], **attributes))
        return f"t{self.count}"

    def constant(self, values: Any, dtype: Any = None) -> str:
        """An initializer, a `Constant`, one computed from another, or one that a caller may set."""
        self.count += 1
        name, array = f"k{self.count}", np.asarray(values, dtype or self.dtype)
        how = self.rng.choice(["initializer", "node", "computed", "input"], p=[0.5, 0.2, 0.25, 0.05])
        if how == "node":
            self.graph.node.append(helper.make_node("Constant", [], [name], value=numpy_helper.from_array(array)))
            return name
        self.graph.initializer.append(numpy_helper.from_array(array, name))
        if how == "input":
            info = helper.make_tensor_value_info(name, helper.np_dtype_to_tensor_dtype(array.dtype), list(array.shape))
            self.graph.input.append(info)
        if how == "computed":
            return self.node("Cast", name, to=helper.np_dtype_to_tensor_dtype(array.dtype))
        return name

    def random(self, *shape: int) -> str:
        """A constant; sometimes an existing one."""
        same = [t.name for t in self.graph.initializer if tuple(t.dims) == shape and t.data_type == self.type]
        if same and self.rng.random() < 0.3:
            return str(self.rng.choice(same))
        return self.constant(self.rng.uniform(0.2, 1.0, shape))

    def any(self) -> str:
        return str(self.rng.choice(self.images[-4:]))

    def conv(self, source: str) -> str:
        group = int(self.rng.choice([1, 2]))
        padding: Any = [{"pads": [1, 1, 1, 1]}, {"auto_pad": "SAME_UPPER"}][int(self.rng.integers(2))]
        weights = [
            self.random(CHANNELS, CHANNELS // group, 3, 3),
            *([self.random(CHANNELS)] * int(self.rng.integers(2))),
        ]
        return self.node("Conv", source, *weights, group=group, **padding)

    def norm(self, source: str) -> str:
        return self.node("BatchNormalization", source, *(self.random(CHANNELS) for _ in range(4)))

    def slice(self, source: str) -> str:
        end = int(self.rng.choice([self.size, 2**31 - 1, 2**63 - 1]))
        bounds = [self.constant([v], np.int64) for v in (0, end, int(self.rng.choice([2, -1])))]
        return self.node("Slice", source, *bounds)

    def computed(self) -> str:
        return self.node("Reshape", self.random(CHANNELS, 1), self.constant([1, CHANNELS, 1, 1], np.int64))

    def body(self, source: str) -> str:
        """An `If` whose branches read tensors of the outer graph."""
        flag, inner = self.constant(True, np.bool_), self.any()
        branches = [helper.make_graph([helper.make_node(kind, [source, inner], ["o"])], kind, [],
                                      [helper.make_tensor_value_info("o", self.type, None)])
                    for kind in ("Add", "Mul")]  # fmt: skip
        return self.node("If", flag, then_branch=branches[0], else_branch=branches[1])

    def grow(self) -> None:
        source = self.any()
        ways: list[Callable[[], str]] = [
            lambda: self.conv(source), lambda: self.norm(self.conv(source)), lambda: self.norm(source),
            lambda: self.slice(source), lambda: self.node("Cast", source, to=self.type), lambda: self.body(source),
            lambda: self.node("Pad", source, self.constant([0] * 8, np.int64)), lambda: self.node("Dropout", source),
            lambda: self.node("Identity", source), lambda: self.node("Relu", source),
            lambda: self.node("Add", source, self.any()),
            lambda: self.node("Mul", source, self.computed()),
        ]  # fmt: skip
        made = ways[int(self.rng.integers(len(ways)))]()
        self.images.append(made)

    def model(self, nodes: int) -> onnx.ModelProto:
        for _ in range(nodes):
            self.grow()
        for name in dict.fromkeys([self.images[-1], *self.rng.choice(self.images[1:], 2)]):
            self.graph.output.append(helper.make_tensor_value_info(str(name), self.type, [None] * 4))
        return helper.make_model(self.graph, opset_imports=[helper.make_opsetid("", self.opset)], ir_version=8)


@pytest.mark.parametrize("seed", range(40))
def test_the_function_stays(seed: int) -> None:
    builder = Builder(seed)
    model = builder.model(12)
    onnx.checker.check_model(model)
    image = np.random.default_rng(seed).uniform(-1, 1, (1, CHANNELS, builder.size, builder.size)).astype(builder.dtype)
    feeds = {"x": image} | {
        tensor.name: numpy_helper.to_array(tensor)
        for tensor in model.graph.initializer
        if tensor.name in {value.name for value in model.graph.input}
    }
    expected = evaluate(model, feeds)
    prepare(model)
    onnx.checker.check_model(model, full_check=True)
    given = {value.name for value in model.graph.input}
    tolerance = 0.03 if builder.dtype == np.float16 else 1e-4
    for name, value in evaluate(model, {key: feeds[key] for key in given}).items():
        assert value.dtype == expected[name].dtype
        np.testing.assert_allclose(value, expected[name], rtol=tolerance, atol=tolerance)
    assert {step.name: step.changed for step in prepare(model)} == dict.fromkeys(STEPS, 0)
