"""Weights after `delete_concat` -> one part for each branch.

Before, one convolution read the joined tensor. Its weight W of shape [M, C1 + C2, ...] splits into W1 and W2 along the
input channels, where the first branch has C1 of them:

    Conv([x1, x2], W) + b  =  (Conv(x1, W1) + b) + (Conv(x2, W2) + 0)

A convolution that reads a quantize node itself subtracts that node's offset o from its input, which the joined one
could not. So each branch's bias gets trunc(o * sum(Wi)) more, the inverse of what moving a quantize node across a
`Concat` subtracts. Padding means the value 0 before and o afterwards, so with padding an offset has no exact result.
"""

from __future__ import annotations

from typing import Any

import numpy as np
import numpy.typing as npt
from onnx import NodeProto, helper

from onnxgraft.catalogue import Transformation
from onnxgraft.evaluation.operator_formulas import quantize_parameter
from onnxgraft.following import DoneStep, Splice, UndoStepError
from onnxgraft.quant import DeleteConcatTransformation

Array = npt.NDArray[Any]

# Ids of the class's pattern and replacement: the quantized branch and the output of the convolution on it.
_BRANCHES = (("2", "100"), ("4", "101"))
_WEIGHT, _BIAS = "6", "7"


class SplitWeights:
    """Runs after `delete_concat`."""

    def wants(self, transformation: Transformation) -> bool:
        """It needs to know which convolutions are new."""
        return issubclass(transformation.cls, DeleteConcatTransformation)

    def follow(self, step: DoneStep) -> None:
        """Gives both convolutions of each occurrence their own part of the weight.

        Raises:
            UndoStepError: The number of channels of a branch is not known, or the parts would not add up.
        """
        splices = step.splices_of(DeleteConcatTransformation)
        if not splices:
            return
        work = _Work(step)
        for splice in splices:
            work.split(splice)
        step.workpiece.drop_unread(work.replaced)
        step.finished += len(splices)
        step.remarks.append("weights split between the branches")


class _Work:
    def __init__(self, step: DoneStep) -> None:
        self._step = step
        self._types = step.tensor_types()
        self._fresh = step.workpiece.fresh_names()
        self._writers = {name: node for node in step.graph.node for name in node.output}
        self._tensors = {tensor.name: tensor for tensor in reversed(step.graph.initializer)}
        self.replaced: set[str] = set()

    def split(self, splice: Splice) -> None:
        """Splits weight and bias of one occurrence."""
        joint = splice.matched[3]
        place = f"Conv '{joint.name or joint.output[0]}'"
        weight_name, bias_name = splice.links[_WEIGHT], splice.links[_BIAS]
        weight, bias = self._read(weight_name, place), self._read(bias_name, place)
        _check(splice.matched[2], joint, weight.ndim, place)
        sizes = self._channels(splice, weight.shape[1], place)
        offsets = [quantize_parameter(self._writers[splice.links[branch]], "offset", 0.0) for branch, _ in _BRANCHES]
        if any(offsets) and _is_padded(joint):
            raise UndoStepError(f"{place}: it has padding, and the offset of its input cannot be split exactly")
        parts = np.split(weight, [sizes[0]], axis=1)
        for number, (part, offset) in enumerate(zip(parts, offsets, strict=True), 1):
            node = self._writers[splice.links[_BRANCHES[number - 1][1]]]
            node.input[1] = self._add(np.ascontiguousarray(part), f"{weight_name}_branch_{number}")
            own_bias = (bias if number == 1 else np.zeros_like(bias)) + _correction(part, offset, bias.dtype)
            if number > 1 or offset:
                node.input[2] = self._add(own_bias, f"{bias_name}_branch_{number}")
        self.replaced |= {weight_name, bias_name}

    def _read(self, name: str, place: str) -> Array:
        values = self._step.workpiece.values(self._tensors[name])
        if values is None:
            raise UndoStepError(f"{place}: the values of '{name}' cannot be read")
        return values

    def _channels(self, splice: Splice, total: int, place: str) -> tuple[int, int]:
        """The number of channels of each branch; one follows from the other."""
        kinds = [self._types.get(splice.links[branch]) for branch, _ in _BRANCHES]
        known = [kind.channels if kind is not None else None for kind in kinds]
        first, second = known
        if first is None and second is None:
            names = " and ".join(f"'{splice.links[branch]}'" for branch, _ in _BRANCHES)
            raise UndoStepError(f"{place}: neither of {names} has a known number of channels")
        first = total - (second or 0) if first is None else first
        second = total - first if second is None else second
        if first + second != total or min(first, second) < 0:
            raise UndoStepError(f"{place}: branches of {first} and {second} channels do not fit a weight of {total}")
        return first, second

    def _add(self, values: Array, name: str) -> str:
        fresh = self._fresh(name)
        self._step.workpiece.add_array(values, fresh)
        return fresh


def _check(concat: NodeProto, convolution: NodeProto, rank: int, place: str) -> None:
    axis = _attribute(concat, "axis", 1)
    if axis not in {1, 1 - rank}:
        raise UndoStepError(f"{place}: its input is joined along axis {axis}, not along the channels")
    group = _attribute(convolution, "group", 1)
    if group != 1:
        raise UndoStepError(f"{place}: a weight of {group} groups cannot be split")


def _is_padded(convolution: NodeProto) -> bool:
    automatic = _attribute(convolution, "auto_pad", b"NOTSET")
    return any(_attribute(convolution, "pads", ())) or automatic not in {b"NOTSET", b"VALID"}


def _correction(part: Array, offset: float, dtype: np.dtype[Any]) -> Array:
    sums = part.sum(axis=tuple(range(1, part.ndim)), dtype=np.int64 if part.dtype.kind in "iu" else part.dtype)
    return np.asarray(np.trunc(sums * offset)).astype(dtype)


def _attribute(node: NodeProto, name: str, default: Any) -> Any:
    return next((helper.get_attribute_value(entry) for entry in node.attribute if entry.name == name), default)
