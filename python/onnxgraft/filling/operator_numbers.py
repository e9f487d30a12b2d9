"""INT8 weights, INT32 biases and dequantize scales of one operator, from its float weight and bias.

With x = (q - offset) / scale and w = w_q * s_w, per output channel c:

    y = sum(x * w) + b = (sum(q * w_q) - offset * sum(w_q) + b_q) * S,   S = s_w / scale,   b_q = round(b / S)

`S` is the factor of the dequantize node. A `Conv` subtracts the offset from its input itself, so that padding stays
exact; `Gemm` and `MatMul` do not, so the middle term goes into their bias.
"""

from __future__ import annotations

from dataclasses import dataclass, field
from typing import Any

import numpy as np
import numpy.typing as npt

from onnxgraft.filling.activations import Activation

Array = npt.NDArray[Any]

_LARGEST_WEIGHT = 127
# Half of INT32: the rest holds the sum of 66,000 products of two INT8 numbers.
_LARGEST_BIAS = 2**30
_BLOCK = 1 << 15  # elements
_SMALLEST_SCALE = float(np.finfo(np.float32).tiny)


@dataclass(frozen=True)
class FloatOperator:
    """The operands of one quantizable operator, as floats.

    Attributes:
        weight: The weight, alpha of a `Gemm` multiplied in.
        bias: The bias, beta multiplied in; None without one. It broadcasts to the output.
        channel_axis: The axis of `weight` along which each index is one output channel; None for one scale in all.
        bias_axis: The axis of `bias` that counts output channels; None if none does.
        folds_offset: Whether the offset of the input goes into the bias.
        exact: INT8 weight and its scales ([C] or [1]) that are to be used as they are; None to compute them.
    """

    weight: Array
    bias: Array | None
    channel_axis: int | None
    bias_axis: int | None = -1
    folds_offset: bool = False
    exact: tuple[Array, Array] | None = None

    @property
    def can_be_asymmetric(self) -> bool:
        """Whether an offset of the input can be removed exactly: by the operator, or by a bias along the channels."""
        if not self.folds_offset:
            return True
        if self.bias is None or self.bias_axis is None or self.weight.ndim != 2:
            return False
        return self.bias.ndim > 0 and self.bias.shape[self.bias_axis] == self.weight.shape[-1]


@dataclass(frozen=True)
class OperatorNumbers:
    """The operands of the quantized operator.

    Attributes:
        weight: INT8, the shape of the float weight.
        bias: INT32; None without one.
        scales: 32-bit floats, the factors of the dequantize node: one per output channel, or one.
        widened: Output channels (0 for one scale in all) whose scale is coarser than the weight requires, since their
            bias would not have fit 31 bits.
    """

    weight: npt.NDArray[np.int8]
    bias: npt.NDArray[np.int32] | None
    scales: npt.NDArray[np.float32]
    widened: tuple[int, ...] = field(default=())


def numbers_of(operator: FloatOperator, activation: Activation) -> OperatorNumbers:
    """The numbers of one operator that reads a tensor quantized with `activation`.

    Weights are symmetric, from -127 to 127: s_w = max|w| / 127. A channel whose weights are all zero gets the finest
    scale at which its bias fits.

    Raises:
        ValueError: A weight or a bias is not finite, or the given INT8 weights are of another shape.
    """
    bias = None if operator.bias is None else np.asarray(operator.bias, np.float64)
    axis, step = operator.channel_axis, activation.step
    largest = _largest(operator.weight, axis)
    largest_bias = _by_channel(bias, operator) if bias is not None else np.zeros(1)
    for magnitudes, what in ((largest, "weight"), (largest_bias, "bias")):
        if not np.isfinite(magnitudes).all():
            raise ValueError(f"its {what} has values that are not finite")
    given = None if operator.exact is None else _checked(operator)
    wanted = (largest / _LARGEST_WEIGHT if given is None else np.abs(given[1])) * step
    least = np.maximum(largest_bias / _LARGEST_BIAS, _SMALLEST_SCALE)
    nothing = (wanted == 0) & (largest_bias == 0)
    scales = np.where(nothing, step, np.maximum(wanted, least)).astype(np.float32)
    widened = tuple(np.flatnonzero((wanted > 0) & (wanted < least)).tolist())
    if given is not None and not widened:
        integers = given[0]
    else:
        integers = _rounded(operator.weight, axis, step / scales.astype(np.float64))
    return OperatorNumbers(integers, _bias(bias, operator, integers, scales, activation), scales, widened)


def _rounded(weight: Array, axis: int | None, factors: Array) -> npt.NDArray[np.int8]:
    """`weight * factors` along an axis, rounded half to even; in blocks that stay in the processor's cache."""
    values = np.asarray(weight)
    if axis is not None and axis != 0:
        return np.ascontiguousarray(_rounded(values.swapaxes(0, axis), 0, factors).swapaxes(0, axis))
    rows = values.reshape(1, -1) if axis is None else values.reshape(len(values), -1)
    result = np.empty(rows.shape, np.int8)
    by_row = factors.astype(np.float32).reshape(-1, 1)
    columns = max(1, min(rows.shape[1], _BLOCK))
    count = max(1, _BLOCK // columns)
    for first in range(0, rows.shape[0], count):
        for start in range(0, rows.shape[1], columns):
            place = np.s_[first : first + count, start : start + columns]
            block = np.multiply(rows[place], by_row[first : first + count], dtype=np.float32)
            np.copyto(result[place], np.rint(block, out=block), casting="unsafe")
    return result.reshape(values.shape)


def _checked(operator: FloatOperator) -> tuple[Array, Array]:
    assert operator.exact is not None
    given, scales = operator.exact
    if given.shape != operator.weight.shape:
        raise ValueError(f"its INT8 weight of shape {given.shape} does not fit the float one, {operator.weight.shape}")
    scales = np.asarray(scales, np.float64).reshape(-1)
    if operator.channel_axis is not None:
        scales = np.broadcast_to(scales, (given.shape[operator.channel_axis],))
    return given.astype(np.int8), scales


def _largest(weight: Array, axis: int | None) -> Array:
    """The largest magnitude of each channel, [C], or of all, [1]; not a number where a weight is not."""
    weight = np.asarray(weight)
    if axis is None:
        return np.asarray(np.maximum(weight.max(initial=0.0), -weight.min(initial=0.0)), np.float64).reshape(1)
    if axis == 0:
        weight = weight.reshape(len(weight), -1)
    others = tuple(i for i in range(weight.ndim) if i != axis)
    return np.asarray(
        np.maximum(weight.max(axis=others, initial=0.0), -weight.min(axis=others, initial=0.0)), np.float64
    )


def _by_channel(bias: Array, operator: FloatOperator) -> Array:
    """The largest magnitude of the bias in each channel, [C], or in all, [1]."""
    magnitudes = np.abs(bias)
    if operator.channel_axis is None or operator.bias_axis is None or not bias.ndim:
        return np.asarray(magnitudes.max(initial=0.0)).reshape(1)
    axis = operator.bias_axis % bias.ndim
    found = magnitudes.max(axis=tuple(i for i in range(bias.ndim) if i != axis), initial=0.0)
    return np.asarray(np.broadcast_to(found, (operator.weight.shape[operator.channel_axis],)))


def _bias(
    bias: Array | None, operator: FloatOperator, weight: Array, scales: Array, activation: Activation
) -> npt.NDArray[np.int32] | None:
    if bias is None:
        return None
    divisors: Array = scales.astype(np.float64)
    if divisors.size == 1:
        divisors = divisors.reshape(())
    elif operator.bias_axis is not None and bias.ndim:
        axis = operator.bias_axis % bias.ndim
        divisors = divisors.reshape([-1 if i == axis else 1 for i in range(bias.ndim)])
    result = np.rint(bias / divisors)
    if operator.folds_offset and activation.offset:
        result = result - activation.offset * weight.sum(axis=0, dtype=np.int64)
    return result.astype(np.int32)
