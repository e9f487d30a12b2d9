"""Random graphs whose initializers, attributes and shapes mean something to the callbacks.

Most values are those of a quantized model; the rest is missing, doubled, symbolic, or of another type, length or rank.
"""

import random
from collections.abc import Sequence
from typing import Any

import numpy as np
from onnx import GraphProto, NodeProto, TensorProto, helper, numpy_helper

from helpers.graphs import Strange
from helpers.occurrences import Array
from onnxgraft.selfcheck.furnishing import Dimensions
from onnxgraft.selfcheck.graph_builder import GraphBuilder

# For each attribute its possible values, usual ones first and most often.
ATTRIBUTES: dict[str, dict[str, tuple[Any, ...]]] = {
    "TesselQuant": {"scale": (0.5, 0.5005, 0.502, 1.0), "offset": (2.0, 0.0, 0.0, -0.7, 2.001, 3)},
    "Conv": {"group": (1, 1, 1, 1, 2), "pads": ([0, 0, 0, 0], [0, 0], [0, 0, 0, 1], [-1, 0, 0, 0])},
    "Gemm": {"transB": (1, 0), "alpha": (1.0,)},
    "Concat": {"axis": (1, 0)},
    "Resize": {
        "cubic_coeff_a": (-0.75,),
        "mode": ("linear", "nearest"),
        "nearest_mode": ("ceil", "floor"),
        "coordinate_transformation_mode": ("align_corners", "asymmetric"),
    },
}
OTHER_VALUES = (3, 0.0, 1.5, "text", [1, 2], [0.5])
OTHER_TYPES = (np.int64, np.float32, np.uint8, np.int8)


class _Furnisher:
    def __init__(self, rng: random.Random, graph: GraphProto) -> None:
        self.rng, self.graph = rng, graph
        self.fault = rng.choice((0.0, 0.02, 0.1))

    def furnish(self) -> None:
        rng, graph = self.rng, self.graph
        for node in graph.node:
            self._share(node)
            self._attributes(node)
        for tensor in graph.initializer:
            tensor.CopyFrom(numpy_helper.from_array(self._content(numpy_helper.to_array(tensor)), tensor.name))
        for value in graph.value_info:
            dims = [rng.choice((1, 3, "n", None)) for _ in range(rng.choice((0, 1, 2, 4, 4, 4)))]
            value.CopyFrom(helper.make_tensor_value_info(value.name, TensorProto.FLOAT, dims))

    def _faulty(self) -> bool:
        return self.rng.random() < self.fault

    def _share(self, node: NodeProto) -> None:
        """Convolutions share weights and biases more often than others, and some omit their bias by an empty name."""
        if node.op_type == "Conv" and self.rng.random() < 0.3:
            others = [other for other in self.graph.node if other.op_type == "Conv" and len(other.input) == 3]
            if node in others:
                node.input[2] = self.rng.choice(("", *(other.input[2] for other in others)))
                node.input[1] = self.rng.choice((node, *others)).input[1]

    def _attributes(self, node: NodeProto) -> None:
        table = ATTRIBUTES.get(node.op_type)
        if table is None:
            return
        del node.attribute[:]
        for name, values in table.items():
            if self._faulty() or (name == "pads" and self.rng.random() < 0.5):
                continue
            usual = self.rng.random() < (0.7 if len(values) > 2 else 0.4)
            chosen = [values[0] if usual else self.rng.choice(values)]
            if self._faulty():
                chosen.insert(self.rng.randint(0, 1), self.rng.choice((*OTHER_VALUES, *values)))
            elif self._faulty():
                chosen = [self.rng.choice(OTHER_VALUES)]
            node.attribute.extend(helper.make_attribute(name, value) for value in chosen)

    def _content(self, values: Array) -> Array:
        rng = self.rng
        if values.dtype == np.uint64:
            values = values | np.uint64(rng.choice((0, 7)) << 32)
        elif values.dtype == np.int32 and rng.random() < 0.4:
            values = values.astype(rng.choice((np.int64, np.float32)))
        elif values.dtype == np.float32 and rng.random() < 0.2:
            values = (9 * values).astype(np.int8)
        if self._faulty():
            values = values.astype(rng.choice(OTHER_TYPES))
        if self._faulty() and values.ndim:
            values = np.resize(values, (rng.randint(0, 6), *values.shape[1:]))
        if self._faulty():
            values = rng.choice((values.ravel(), values.reshape(1, -1), values[:, 0] if values.ndim > 1 else values))
        return values


class _Builder(GraphBuilder):
    """`tidy` is how separate the occurrences are: large patterns need that."""

    tidy = 0.0

    def _tensor(self) -> str:
        if self.products and self.rng.random() < 0.04:
            return self._add("Mul", [self._input(), self._input()]).output[0]  # dequantizes nothing
        return self._input() if not self.products and self.rng.random() < self.tidy else super()._tensor()


def furnished_graph(rng: random.Random, pattern: Sequence[str], *, products: bool = False) -> GraphProto:
    """`products`: tensors from outside the pattern are mostly a `Mul` of something dequantized."""
    builder = _Builder(rng)
    builder.furnisher.sizes = Dimensions(rng.randint(1, 5), rng.choice((1, 1, 1, 1, 3)))
    builder.products = 0.97 if products else 0.0
    styles = ((1.0, 0.0, 0.0), (0.8, 0.0, 0.02), (0.0, 0.4, 0.1), (0.8, 0.0, 1.0))
    builder.tidy, builder.overlap, builder.spoil = rng.choices(styles, weights=(3, 3, 3, 1))[0]
    graph = builder.build([pattern] * (2 if len(pattern) < 5 else 1))
    _Furnisher(rng, graph).furnish()
    Strange(rng, graph, rng.choice((0.0, 0.0, 0.01, 0.05))).spoil()
    return graph
