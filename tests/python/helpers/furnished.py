"""Random graphs around a pattern whose initializers, attributes and shapes mean something to the callbacks.

Most of it is as a quantized model has it; the rest is missing, doubled, of another type, length or rank, or symbolic.
"""

from __future__ import annotations

import random
from collections.abc import Callable, Sequence
from typing import Any

import numpy as np
from onnx import GraphProto, NodeProto, TensorProto, helper, numpy_helper

from helpers.graphs import GraphMaker
from helpers.occurrences import Array, packed
from oracle.notation import PatternNode

# For each attribute the values that it may have, usual ones first and most often.
ATTRIBUTES: dict[str, dict[str, tuple[Any, ...]]] = {
    "TesselQuant": {"scale": (0.5, 0.5005, 0.502, 1.0), "offset": (2.0, 0.0, 0.0, -0.7, 2.001, 3)},
    "Conv": {"group": (1, 1, 1, 1, 2), "pads": ([0, 0, 0, 0], [0, 0], [0, 0, 0, 1])},
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


class FurnishedMaker(GraphMaker):
    def __init__(self, rng: random.Random, pattern: Sequence[str], *, products: bool) -> None:
        super().__init__(rng, pattern)
        self.fault = rng.choice((0.0, 0.02, 0.1))
        self.tidy = rng.choice((0.0, 0.8, 1.0))  # how much the instances keep apart: large patterns need that
        self.strangeness *= 1 - 0.9 * self.tidy
        self.values = np.random.default_rng(rng.randrange(2**32))
        self.channels = rng.randint(1, 5)
        self._products = products
        self._shared = (super().constant(), super().constant())  # a weight and a bias for several convolutions

    def _faulty(self) -> bool:
        return self.rng.random() < self.fault

    def tensor(self) -> str:
        if self.rng.random() >= self.tidy:
            return super().tensor()
        name = self._name("x")
        self.graph.input.append(helper.make_tensor_value_info(name, TensorProto.FLOAT, [1]))
        self.tensors.append(name)
        return name

    def constant(self) -> str:
        if self.rng.random() >= 0.9 * self.tidy:
            return super().constant()
        name = self._name("w")
        self.graph.initializer.add(name=name)
        return name

    def _candidates(self, node: PatternNode, links: dict[str, str], used: list[str]) -> list[NodeProto]:
        return [] if self.rng.random() < self.tidy else super()._candidates(node, links, used)

    def _outside(self, links: dict[str, str]) -> str:
        if not self._products or self.rng.random() < 0.1 + self.fault:
            return super()._outside(links)
        op = "Relu" if self.rng.random() < 0.06 else "TesselDequant"
        branch = self.add(op, [self.tensor(), *([self.constant()] if op != "Relu" else [])]).output[-1]
        op = "Add" if self.rng.random() < 0.06 else "Mul"
        return self.add(op, self.rng.sample([branch, self.tensor()], 2)).output[-1]

    def _decorate(self) -> None:
        for node in [n for n in self.graph.node if n.op_type == "TesselQuant"]:
            self._add_readers(node)
        super()._decorate()
        if self.rng.random() < self.tidy:
            del self.graph.output[:]
        for node in self.graph.node:
            self._furnish_node(node)
        for tensor in self.graph.initializer:
            tensor.CopyFrom(numpy_helper.from_array(self._content(tensor.name), tensor.name))
        for name in self.tensors:
            if self.rng.random() < 0.5:
                self.graph.value_info.add(name=name)
        for value in self.graph.value_info:
            dims = [self.rng.choice((1, 3, "n", None)) for _ in range(self.rng.choice((0, 1, 2, 4, 4, 4)))]
            value.CopyFrom(helper.make_tensor_value_info(value.name, TensorProto.FLOAT, dims))

    def _add_readers(self, node: NodeProto) -> None:
        """Convolutions on a quantized tensor; some share their weights and biases."""
        rng = self.rng
        inner = any(set(node.output) & set(other.input) for other in self.graph.node)
        for _ in range(rng.choice((0,) * 19 + (1,) if inner else (0, 1, 1, 2, 3))):
            weight, bias = (self.constant() if rng.random() < 0.5 else name for name in self._shared)
            inputs = [node.output[-1] or node.output[0], weight, *rng.choice(([], [""], [bias], [bias]))]
            if rng.random() < 0.05:
                rng.shuffle(inputs)
            self.add("Conv", inputs)

    def _furnish_node(self, node: NodeProto) -> None:
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

    def _content(self, name: str) -> Array:
        """Fits one of those that read the initializer."""
        roles = [(n.op_type, k) for n in self.graph.node for k, read in enumerate(n.input) if read == name]
        make = CONTENTS.get(self.rng.choice(roles) if roles else ("", 0), _anything)
        return make(self)

    def length(self) -> int:
        return self.rng.randint(0, 6) if self._faulty() else self.channels

    def integers(self, shape: Sequence[int], dtype: Any, low: int = -128, high: int = 127) -> Array:
        """Of that element type, or now and then another."""
        drawn = self.values.integers(low, high, tuple(shape))
        return drawn.astype(self.rng.choice((np.int64, np.float32, np.uint8)) if self._faulty() else dtype)


def _anything(maker: FurnishedMaker) -> Array:
    return maker.integers((1,), np.float32)


def _weight(maker: FurnishedMaker) -> Array:
    kernel = (3, 3) if maker.rng.random() < 0.08 else (1, 1)
    shape: tuple[int, ...] = (maker.length(), maker.rng.randint(1, 3), *kernel)
    if maker._faulty():
        shape = shape[: maker.rng.randint(0, 3)]
    return maker.integers(shape, maker.rng.choice((np.int8, np.int8, np.float32)))


def _bias(maker: FurnishedMaker) -> Array:
    dtype = maker.rng.choice((np.int32, np.int32, np.int32, np.int64, np.float32))
    return maker.integers((maker.length(),), dtype, -(10**6), 10**6)


def _matrix(maker: FurnishedMaker) -> Array:
    return maker.integers((maker.length(), 3), maker.rng.choice((np.float32, np.int8, np.float32)))


def _words(maker: FurnishedMaker) -> Array:
    scales = maker.values.uniform(0.01, 2, maker.rng.choice((1, maker.length()))).astype(np.float32)
    words = packed(scales, upper=maker.rng.choice((0, 7)))
    return words.reshape(1, -1) if maker._faulty() else words


def _extent(maker: FurnishedMaker) -> Array:
    return maker.integers(maker.rng.choice(((1,), (1,), ())) if not maker._faulty() else (2,), np.int64, 1, 100)


CONTENTS: dict[tuple[str, int], Callable[[FurnishedMaker], Array]] = {
    ("Conv", 1): _weight,
    ("Conv", 2): _bias,
    ("Gemm", 1): _matrix,
    ("Gemm", 2): _bias,
    ("MatMul", 1): _matrix,
    ("TesselDequant", 1): _words,
    ("Concat", 1): _extent,
    ("Concat", 2): _extent,
}


def furnished_graph(rng: random.Random, pattern: Sequence[str], *, products: bool = False) -> GraphProto:
    """`products`: what comes from outside the pattern is mostly a `Mul` of something dequantized."""
    return FurnishedMaker(rng, pattern, products=products).make()
