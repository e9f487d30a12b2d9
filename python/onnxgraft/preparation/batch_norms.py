"""`BatchNormalization` of a `Conv`'s or `ConvTranspose`'s output -> other weights and another bias of that node.

y = (conv(x, W) + b - mean) * f + B, where f = scale / sqrt(variance + epsilon).
So W' = W * f and b' = (b - mean) * f + B, in double precision and rounded once to the type of the weights.
"""

from __future__ import annotations

import logging
import math
from collections import Counter
from collections.abc import Callable, Sequence

import numpy as np
from onnx import NodeProto, TensorProto

from onnxgraft.preparation.workpiece import Workpiece, input_of, is_standard

LOG = logging.getLogger(__name__)

_WEIGHT, _BIAS = 1, 2
_PARAMETERS = slice(1, 5)  # scale, B, mean, variance
_EPSILON = 1e-5
# From this operator set on, a normalization is for inference unless it says otherwise.
_INFERENCE_BY_DEFAULT = 7
# Rounding may change this much, relative to the largest weight of a filter. Half precision loses more if all get small.
_LARGEST_LOSS = 2.0**-10
_ELEMENT_TYPES = {TensorProto.FLOAT, TensorProto.FLOAT16, TensorProto.DOUBLE}


def fold_batch_norms(workpiece: Workpiece) -> int:
    """Folds normalizations that are the only reader of a convolution with constant weights.

    Weights and parameters with other readers stay for them. Convolutions that share weights and normalization
    parameters share the new weights. A normalization stays if it is for training, normalizes each element (`spatial`
    0), or if the new weights would overflow or lose precision.
    """
    graph = workpiece.graph
    if not workpiece.opset or not any(is_standard(node, "BatchNormalization") for node in graph.node):
        return 0
    folder = _Folder(workpiece)
    producers: dict[str, NodeProto] = {}
    for node in graph.node:
        producers.setdefault(node.output[0] if len(node.output) == 1 else "", node)  # the first one counts
    uses = Counter(name for node in graph.node for name in node.input)
    kept = workpiece.kept_names()
    folded, gone = [], set()
    for index, norm in enumerate(graph.node):
        name = input_of(norm, 0)
        conv = producers.get(name)
        if conv is None or not name or uses[name] != 1 or name in kept or not _is_foldable(norm, workpiece.opset):
            continue
        old = [*conv.input[1:], *norm.input[1:]]
        if folder.fold(conv, norm):
            conv.output[0] = norm.output[0]
            producers[norm.output[0]] = conv
            folded.append(index)
            gone.add(name)
            folder.replaced.update(old)
    workpiece.remove_nodes(folded)
    workpiece.forget_values(gone)
    workpiece.drop_unread(folder.replaced)
    return len(folded)


def _is_foldable(norm: NodeProto, opset: int) -> bool:
    if (
        not is_standard(norm, "BatchNormalization")
        or len(norm.input) != 5
        or not norm.output[0]
        or any(norm.output[1:])
    ):
        return False
    numbers = {attribute.name: attribute.i for attribute in norm.attribute}
    inference = numbers.get("is_test", int(opset >= _INFERENCE_BY_DEFAULT)) == 1
    return inference and not numbers.get("training_mode", 0) and numbers.get("spatial", 1) == 1


class _Folder:
    """Creates the new initializers, one pair for each distinct set of inputs."""

    def __init__(self, workpiece: Workpiece) -> None:
        self._workpiece = workpiece
        self._constants = workpiece.constants()
        self._fresh: Callable[[str], str] = workpiece.fresh_names()
        self._made: dict[tuple[object, ...], tuple[str, str] | None] = {}
        self.replaced: set[str] = set()

    def fold(self, conv: NodeProto, norm: NodeProto) -> bool:
        """Gives the convolution its new weight and bias; returns False, and changes nothing, if there are none."""
        if not (is_standard(conv, "Conv") or is_standard(conv, "ConvTranspose")):
            return False
        names = [input_of(conv, _WEIGHT), input_of(conv, _BIAS), *norm.input[_PARAMETERS]]
        if any(name and name not in self._constants for name in names) or not names[0]:
            return False
        if self._constants[names[0]].data_type not in _ELEMENT_TYPES:
            return False
        epsilon = next((a.f for a in norm.attribute if a.name == "epsilon"), _EPSILON)
        groups = next((a.i for a in conv.attribute if a.name == "group"), 1)
        transposed_groups = groups if conv.op_type == "ConvTranspose" else 0
        key = (*names, epsilon, transposed_groups)
        if key not in self._made:
            self._made[key] = self._make(names, epsilon, transposed_groups)
        made = self._made[key]
        if made is None:
            LOG.warning("BatchNormalization '%s' is not folded: its shapes do not fit, or the weights would "
                        "lose precision", norm.output[0])  # fmt: skip
            return False
        conv.input[_WEIGHT] = made[0]
        conv.input[_BIAS:] = [made[1]]
        return True

    def _make(self, names: Sequence[str], epsilon: float, transposed_groups: int) -> tuple[str, str] | None:
        """Names of a new weight and bias; None if a value cannot be read or does not fit."""
        arrays = [self._workpiece.values(self._constants[name]) if name else None for name in names]
        weight, bias, *parameters = arrays
        numbers = [array.astype(np.float64) for array in parameters if array is not None]
        if weight is None or len(numbers) < 4 or (names[1] and bias is None):
            return None
        shape = _filters(weight.shape, transposed_groups)
        channels = shape[0] * shape[2] if shape is not None else 0
        numbers.append(np.zeros(channels) if bias is None else bias.astype(np.float64))
        if shape is None or channels == 0 or any(array.shape != (channels,) for array in numbers):
            return None
        scale, shift, mean, variance, old_bias = numbers
        with np.errstate(all="ignore"):
            factors = scale / np.sqrt(variance + epsilon)
            scaled = weight.astype(np.float64).reshape(shape) * factors.reshape(shape[0], 1, shape[2], 1)
            new_bias = ((old_bias - mean) * factors + shift).astype(weight.dtype)
            new_weight = scaled.astype(weight.dtype)
            loss = np.abs(new_weight - scaled).max((1, 3), initial=0)
            holds = loss <= _LARGEST_LOSS * np.abs(scaled).max((1, 3), initial=0)
        if not holds.all() or not np.isfinite(new_bias).all():
            return None
        made = self._fresh(f"{names[0]}_folded"), self._fresh(f"{names[1] or names[0] + '_bias'}_folded")
        for name, array in zip(made, (new_weight.reshape(weight.shape), new_bias), strict=True):
            self._workpiece.add_array(array, name)
            self._constants[name] = self._workpiece.graph.initializer[-1]
        return made


def _filters(shape: tuple[int, ...], transposed_groups: int) -> tuple[int, int, int, int] | None:
    """The shape of a weight whose axes 0 and 2 together count its output channels; None if it has no such shape.

    A `Conv` has them first; a `ConvTranspose` has those of one group second, and the groups one after the other.
    """
    if len(shape) < 3:
        return None
    if not transposed_groups:
        return shape[0], 1, 1, math.prod(shape[1:])
    inputs, outputs = shape[:2]
    if transposed_groups < 0 or inputs % transposed_groups:
        return None
    return transposed_groups, inputs // transposed_groups, outputs, math.prod(shape[2:])
