"""Small models with one occurrence of a rule's pattern that meets its conditions, for comparing numbers."""

from __future__ import annotations

import random
from typing import Any

import numpy as np
import onnx
from onnx import helper, numpy_helper

from onnxgraft.catalogue.notation import PatternNode, read_pattern
from onnxgraft.rules import RulePair
from onnxgraft.rules.conditions import NodeCondition, Numbers, TensorCondition
from onnxgraft.rules.values import ELEMENT_TYPES, Array
from onnxgraft.selfcheck.furnishing import Furnisher

OPSET = 17
_IR_VERSION = 8


class RuleExample:
    """One model. Not every one can be evaluated: sizes that no condition names are random."""

    def __init__(self, pair: RulePair, rng: random.Random) -> None:
        self._rng = rng
        self._furnisher = Furnisher(rng)
        self._nodes = {condition.node: condition for condition in pair.nodes}
        self._tensors = {condition.tensor: condition for condition in pair.tensors}
        self._pattern = read_pattern(pair.pattern)
        self.inputs: dict[str, Array] = {}
        self._constants: dict[str, Array] = {}

    def build(self) -> onnx.ModelProto:
        """The model; `inputs` has a value for each graph input afterwards."""
        written = {node.output for node in self._pattern}
        todo, order = list(self._pattern), []
        while todo:
            pending = {node.output for node in todo}
            node = next((one for one in todo if not pending & {link.id for link in one.inputs}), todo[0])
            todo.remove(node)
            order.append(node)
        for node in order:
            for slot, link in enumerate(node.inputs):
                if link.initializer:
                    self._constants.setdefault(link.id, self._constant(link.id, node, slot))
                elif link.id not in written:
                    self.inputs.setdefault(f"t{link.id}", self._input(link.id))
        read = {link.id for node in self._pattern for link in node.inputs}
        graph = helper.make_graph(
            [self._node(node) for node in order],
            "example",
            [
                helper.make_tensor_value_info(name, helper.np_dtype_to_tensor_dtype(value.dtype), value.shape)
                for name, value in self.inputs.items()
            ],
            [helper.make_empty_tensor_value_info(f"t{node.output}") for node in order if node.output not in read],
            [numpy_helper.from_array(value, f"t{tensor}") for tensor, value in self._constants.items()],
        )
        return helper.make_model(graph, opset_imports=[helper.make_opsetid("", OPSET)], ir_version=_IR_VERSION)

    def _node(self, node: PatternNode) -> onnx.NodeProto:
        number = self._pattern.index(node)
        names = ["t" + link.id for link in node.inputs]
        made = helper.make_node(node.op, names, [f"t{node.output}"], name=f"node_{number}")
        condition = self._nodes.get(number, NodeCondition(number))
        attributes: dict[str, Any] = self._furnisher.attributes(node.op) | {
            name: value
            for name, wanted in condition.attributes.items()
            if (value := wanted if isinstance(wanted, str) else _plain(wanted)) is not None
        }
        for name, value in attributes.items():
            if name not in condition.without:
                made.attribute.append(helper.make_attribute(name, value))
        return made

    def _input(self, tensor: str) -> Array:
        condition = self._tensors.get(tensor, TensorCondition(tensor))
        channels, image = self._furnisher.sizes.channels, self._furnisher.sizes.image
        shape: tuple[int, ...] = (1, channels, image, image)
        if condition.shapes or condition.ranks:
            shape = self._shape(condition)
        elif self._rng.random() < 0.5:
            shape = self._rng.choice(((channels, channels), (2, channels), (1, image, channels)))
        return self._of_type(
            self._furnisher.floats(*shape) * self._rng.choice((1, 10)), condition, np.dtype(np.float32)
        )

    def _constant(self, tensor: str, node: PatternNode, slot: int) -> Array:
        condition = self._tensors.get(tensor, TensorCondition(tensor))
        default = self._furnisher.initializer(node.op, slot, quantized=False, inputs=len(node.inputs))
        if node.op == "Reshape":
            sizes = self._furnisher.sizes
            default = np.array(self._rng.choice(([1, -1], [sizes.channels, -1], [-1, sizes.image])), np.int64)
        numbers, shape = condition.numbers, default.shape
        if condition.shapes or (condition.ranks and default.ndim not in condition.ranks):
            shape = self._shape(condition)
        elif condition.fits is not None:
            shape = self._rng.choice(((), (1,)))
        elif numbers.elements is not None:
            shape = (numbers.elements,)
        kind = default.dtype
        values = default if shape == default.shape else self._furnisher.floats(*shape).astype(kind)
        if numbers.value is not None:
            wanted = np.asarray(numbers.value)
            values = wanted.astype(kind) if wanted.ndim else np.full(shape, wanted).astype(kind)
        elif numbers.min is not None or numbers.max is not None:
            low, high = numbers.min, numbers.max
            values = np.clip(values.astype(np.float64), low, high).astype(kind)
        if numbers.other_than is not None:
            values = np.where(values == numbers.other_than, values + 1, values).astype(kind)
        return self._of_type(values, condition, values.dtype)

    def _shape(self, condition: TensorCondition) -> tuple[int, ...]:
        channels, image = self._furnisher.sizes.channels, self._furnisher.sizes.image
        if not condition.shapes:
            rank = self._rng.choice(condition.ranks)
            return ((1, channels, image, image) if rank == 4 else (channels,) * rank)[:rank]
        wanted = self._rng.choice(condition.shapes)
        return tuple(channels if size is None else size for size in wanted)

    @staticmethod
    def _of_type(values: Array, condition: TensorCondition, kind: np.dtype[Any]) -> Array:
        return np.asarray(values.astype(ELEMENT_TYPES[condition.types[0]] if condition.types else kind))


def _plain(wanted: Numbers) -> Any:
    if wanted.value is not None:
        return wanted.value
    bound = wanted.min if wanted.min is not None else wanted.max
    return None if bound is None else float(bound)
