"""Whole models written as pattern strings: every operator gets shapes, attributes and weights that make sense.

Data is [2, channels, size, size]; outside tensors have 4 channels, a `Conv` writes 6. Sizes follow from the graph: what
a `Resize` writes is 8 wide, everything else 5. Tensor "7" of the strings is "t7".
"""

from __future__ import annotations

from collections.abc import Callable, Mapping, Sequence
from graphlib import TopologicalSorter
from typing import Any

import numpy as np
import numpy.typing as npt
import onnx
import pytest
from onnx import TensorProto, helper, numpy_helper
from onnx.reference.ops import op_resize

from helpers.occurrences import packed
from oracle.notation import PatternNode, parse_pair

fast_resize = pytest.mark.skipif(
    not hasattr(op_resize, "_interpolate_1d_along_axis"),
    reason="this onnx computes Resize element by element: minutes for a real model",
)
Array = npt.NDArray[Any]
Initializer = Callable[["ModelMaker", PatternNode], Array]

BATCH, CHANNELS, WRITTEN, SIZE, RESIZED = 2, 4, 6, 5, 8

ATTRIBUTES: dict[str, dict[str, Any]] = {
    "TesselQuant": {"scale": 0.75, "offset": 0.0},
    "Concat": {"axis": 1},
    "MaxPool": {"kernel_shape": [3, 3], "pads": [1, 1, 1, 1]},
    "LeakyRelu": {"alpha": 0.125},
    "Resize": {"mode": "nearest", "coordinate_transformation_mode": "asymmetric", "nearest_mode": "floor"},
    "Conv": {"group": 1},
}


def _weight(maker: ModelMaker, node: PatternNode) -> Array:
    kernel = 1 if "GlobalAveragePool" in maker.operators else 3
    shape = (WRITTEN, maker.channels[node.inputs[0].id], kernel, kernel)
    return maker.rng.integers(-128, 127, shape, dtype=np.int8)


def _scales(maker: ModelMaker, node: PatternNode) -> Array:
    scales = maker.rng.uniform(0.001, 0.01, maker.channels[node.inputs[0].id]).astype(np.float32)
    return packed(scales, upper=int(maker.rng.integers(2**31)))


def _resize_scales(maker: ModelMaker, node: PatternNode) -> Array:
    return np.array([1, 1, RESIZED / SIZE, RESIZED / SIZE], np.float32) if len(node.inputs) == 3 else np.zeros(0, "f")


def _sizes(maker: ModelMaker, node: PatternNode) -> Array:
    return np.array([BATCH, maker.channels[node.inputs[0].id], RESIZED, RESIZED], np.int64)


def _fixed(value: int) -> Initializer:
    return lambda maker, node: np.array([value], np.int64)


INITIALIZERS: dict[str, list[Initializer]] = {
    "Conv": [_weight, lambda maker, node: maker.rng.integers(-1000, 1000, WRITTEN, dtype=np.int32)],
    "TesselDequant": [_scales],
    "Resize": [lambda maker, node: np.zeros(0, np.float32), _resize_scales, _sizes],
    "Slice": [_fixed(0), _fixed(2), _fixed(0)],
    "Concat": [_fixed(RESIZED), _fixed(RESIZED)],  # height and width after a sliced shape
}


class ModelMaker:
    def __init__(self, nodes: Sequence[str], attributes: Mapping[int, Mapping[str, Any]], seed: int) -> None:
        self.rng: np.random.Generator = np.random.default_rng(seed)
        written = {node.output: node for node in parse_pair(nodes, []).pattern}
        needs = {name: [link.id for link in node.inputs] for name, node in written.items()}
        self.nodes = [written[name] for name in TopologicalSorter(needs).static_order() if name in written]
        self.operators = {node.op for node in self.nodes}
        self.channels: dict[str, int] = {}
        self._attributes = {text.rpartition("->")[2]: attributes.get(k, {}) for k, text in enumerate(nodes)}
        self._sizes = self._find_sizes()
        self._shapes = {node.output for node in self.nodes if node.op in ("Shape", "Slice")}
        self.graph = onnx.GraphProto(name="model")

    def make(self) -> onnx.ModelProto:
        for node in self.nodes:
            self._add(node)
        read = {link.id for node in self.nodes for link in node.inputs}
        for node in self.nodes:
            if node.output not in read:
                self.graph.output.append(helper.make_tensor_value_info(f"t{node.output}", TensorProto.FLOAT, None))
        opsets = [helper.make_opsetid("", 17)]
        return helper.make_model(self.graph, opset_imports=opsets, ir_version=8)

    def _find_sizes(self) -> dict[str, int]:
        """One size for all tensors that must be equally large: those without a `Resize` between them."""
        group = {i: {i} for node in self.nodes for i in (*(link.id for link in node.inputs), node.output)}
        for node in self.nodes:
            if node.op != "Resize":
                for link in node.inputs:
                    merged = group[link.id] | group[node.output]
                    group.update(dict.fromkeys(merged, merged))
        resized = {node.output for node in self.nodes if node.op == "Resize"}
        return {i: RESIZED if members & resized else SIZE for i, members in group.items()}

    def _add(self, node: PatternNode) -> None:
        for position, link in enumerate(node.inputs):
            if link.id in self.channels:
                continue
            self.channels[link.id] = CHANNELS
            name, size = f"t{link.id}", self._sizes[link.id]
            if link.initializer:
                values = INITIALIZERS[node.op][position - 1](self, node)
                self.graph.initializer.append(numpy_helper.from_array(values, name))
            else:
                shape = [BATCH, CHANNELS, size, size]
                self.graph.input.append(helper.make_tensor_value_info(name, TensorProto.FLOAT, shape))
                self.graph.value_info.append(self.graph.input[-1])
        inputs = [link.id for link in node.inputs]
        attributes = {**ATTRIBUTES.get(node.op, {}), **self._attributes[node.output]}
        self.channels[node.output] = self.channels[inputs[0]] if node.op != "Conv" else WRITTEN
        if node.op == "Concat":
            self.channels[node.output] = sum(self.channels[i] for i in inputs)
            if inputs[0] in self._shapes:
                attributes["axis"] = 0
        names = [f"t{i}" for i in inputs]
        if node.rest:  # of a `Resize`: two omitted inputs and the sizes
            names += ["", "", f"sizes_of_{node.output}"]
            self.graph.initializer.append(numpy_helper.from_array(_sizes(self, node), names[-1]))
        self.graph.node.append(helper.make_node(node.op, names, [f"t{node.output}"], f"n{node.output}", **attributes))


def make_model(
    nodes: Sequence[str], attributes: Mapping[int, Mapping[str, Any]] | None = None, seed: int = 0
) -> onnx.ModelProto:
    """The model of these strings; `attributes` overrides those of the node at that position."""
    return ModelMaker(nodes, attributes or {}, seed).make()


def random_inputs(model: onnx.ModelProto, seed: int = 0) -> dict[str, Array]:
    """A float32 value for every graph input."""
    rng = np.random.default_rng(seed)
    shapes = {v.name: [d.dim_value for d in v.type.tensor_type.shape.dim] for v in model.graph.input}
    return {name: (8 * rng.standard_normal(shape)).astype(np.float32) for name, shape in shapes.items()}
