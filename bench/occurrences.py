"""Chains of a transformation's own occurrences, built from its pattern lists, with the smallest possible tensors."""

from __future__ import annotations

import re
from collections.abc import Sequence

import numpy as np
import numpy.typing as npt
import onnx
from onnx import GraphProto, TensorProto, helper, numpy_helper

from onnxgraft.catalogue import Transformation

_CHANNELS = 2
_EMPTY = np.zeros(0, np.float32)
_SIZE = np.ones(1, np.int64)
_WORDS = np.full(_CHANNELS, 0x3F000000, np.uint64)  # 0.5 in every low half
_VALUES = np.ones(_CHANNELS, np.float32)
_MATRIX = np.ones((1, 1), np.float32)
_KERNEL = np.ones((_CHANNELS, 1, 1, 1), np.int8)

# The contents of an operator's initializers, by input position.
_TENSORS: dict[str, Sequence[npt.NDArray[np.generic]]] = {
    "Conv": (_EMPTY, _KERNEL, np.ones(_CHANNELS, np.int32)),
    "Gemm": (_EMPTY, _MATRIX, _VALUES),
    "MatMul": (_EMPTY, _MATRIX),
    "Add": (_VALUES, _VALUES),
    "TesselDequant": (_EMPTY, _WORDS),
    "BatchNormalization": (_VALUES,) * 5,
    "Slice": (_SIZE,) * 4,
    "Concat": (_SIZE,) * 6,
    "Resize": (_EMPTY, _EMPTY, _EMPTY, np.ones(4, np.int64)),
}
_ATTRIBUTES: dict[str, list[onnx.AttributeProto]] = {
    "TesselQuant": [helper.make_attribute("scale", 0.5), helper.make_attribute("offset", 0.0)],
    "Conv": [helper.make_attribute("group", 1)],
    "Concat": [helper.make_attribute("axis", 1)],
}


class _Chain:
    """A graph that grows by one occurrence after another, with a node of another operator between them."""

    def __init__(self, transformation: Transformation, between: str) -> None:
        self.between = between
        self.graph = GraphProto(name=transformation.name)
        self.transformation = transformation
        self.last = "x"
        self.count = 0

    def node(self, op: str, inputs: Sequence[str], output: str) -> None:
        node = self.graph.node.add(op_type=op, name=f"node_{len(self.graph.node)}", input=inputs, output=[output])
        node.attribute.extend(_ATTRIBUTES.get(op, ()))

    def initializer(self, op: str, position: int, name: str) -> None:
        values = _TENSORS[op][min(position, len(_TENSORS[op]) - 1)]
        if op == "Conv" and self.transformation.name == "quant_conv":
            values = values.astype(np.float32)  # of type INT8 it would be refused
        self.graph.initializer.append(numpy_helper.from_array(values, name))

    def outside(self, name: str, first: bool) -> str:
        """A tensor from outside the occurrence: the chain for the first input, or what the callback requires."""
        if self.transformation.name == "replace_concat_quant_v10":
            self.initializer("TesselDequant", 1, f"{name}_scale")
            self.node("TesselDequant", [self.last, f"{name}_scale"], f"{name}_float")
            self.node("Mul", [f"{name}_float", self.last], name)
            return name
        if self.transformation.name == "simplify_shape_v2":
            value = helper.make_tensor_value_info(self.last, TensorProto.FLOAT, [1, _CHANNELS, 4, 4])
            self.graph.value_info.append(value)
        return self.last if first else name

    def occurrence(self, pattern: Sequence[str]) -> None:
        prefix, self.count = f"{self.count}_", self.count + 1
        lines = [tuple(re.split(":|->", text)) for text in pattern]  # operator, inputs, output
        written = {output for _, _, output in lines}
        names: dict[str, str] = {}
        first = True
        for op, links, _ in lines:
            for position, link in enumerate(filter(None, links.split(","))):
                if link.endswith("i") and link != "~i" and link not in names:
                    names[link] = prefix + link
                    self.initializer(op, position, prefix + link)
                elif not link.endswith("i") and link not in written and link not in names:
                    names[link] = self.outside(prefix + link, first)
                    first = False
        names |= {output: prefix + output for output in written}
        read = set()
        for op, links, output in lines:
            inputs = [link for link in links.split(",") if link and link != "~i"]
            read |= set(inputs)
            self.node(op, [names[link] for link in inputs], names[output])
        results = [names[output] for _, _, output in lines if output not in read]
        constants = [f"{prefix}end_{position}" for position in (1, 2)] if self.between == "Conv" else []
        for position, name in enumerate(constants, 1):
            self.initializer(self.between, position, name)
        self.node(self.between, [results[0], *constants], f"{prefix}end")
        self.last = f"{prefix}end"


def chain(transformation: Transformation, length: int, between: str = "Identity") -> GraphProto:
    """`length` occurrences, alternating over the transformation's pairs; `between` is "Identity" or "Conv"."""
    growing = _Chain(transformation, between)
    for number in range(length):
        growing.occurrence(transformation.pairs[number % len(transformation.pairs)][0])
    return growing.graph
