"""Reads the float operators that the quantizing transformations replace."""

from __future__ import annotations

from typing import Any

import numpy as np
import numpy.typing as npt
import onnx

from onnxgraft.filling.operator_numbers import FloatOperator

Array = npt.NDArray[Any]
Exact = tuple[Array, Array, int | None]  # INT8 weight, its scales, and the axis that they run along


def float_operator(
    node: onnx.NodeProto, weight: Array, bias: Array | None, output_rank: int | None, exact: Exact | None = None
) -> FloatOperator:
    """The operands of a `Conv`, `Gemm` or `MatMul`.

    Args:
        node: The operator.
        weight: Its second input.
        bias: Its third input; for a `MatMul` the other operand of the `Add` after it.
        output_rank: The rank of the output (after the `Add`); None if it is not known.
        exact: INT8 numbers of the weight, their scales and the axis of these, if they are given.
    """
    if node.op_type == "Conv":
        return FloatOperator(weight, bias, 0, bias_axis=0, exact=_along(0, exact))
    if node.op_type == "Gemm":
        return _gemm(node, weight, bias, exact)
    # A dequantize node scales along axis 1: the output channels of a product of rank 2 only.
    channel_axis = 1 if weight.ndim == 2 and output_rank == 2 else None
    return FloatOperator(weight, bias, channel_axis, folds_offset=True, exact=_along(channel_axis, exact))


def _gemm(node: onnx.NodeProto, weight: Array, bias: Array | None, exact: Exact | None) -> FloatOperator:
    alpha, beta = attribute(node, "alpha", 1.0), attribute(node, "beta", 1.0)
    transposed = bool(attribute(node, "transB", 0))
    given = _along(0 if transposed else 1, exact)
    if given is not None:
        integers, scales = given
        # A negative alpha turns the integers, whose scales stay above 0; -128 has no counterpart.
        integers = np.maximum(integers, -127) * np.int8(-1) if alpha < 0 else integers
        given = (integers.transpose() if transposed else integers, scales * abs(alpha)) if alpha else None
    if transposed:
        weight = weight.transpose()
    if alpha != 1.0:
        weight = weight * np.asarray(alpha, weight.dtype)
    if bias is not None and beta != 1.0:
        bias = bias * np.asarray(beta, bias.dtype)
    return FloatOperator(weight, bias, 1, folds_offset=True, exact=given)


def _along(channel_axis: int | None, exact: Exact | None) -> tuple[Array, Array] | None:
    """The given numbers if their scales run along the output channels, or there is one."""
    if exact is None:
        return None
    integers, scales, axis = exact
    return (integers, scales) if scales.size == 1 or axis == channel_axis else None


def attribute(node: onnx.NodeProto, name: str, default: float) -> float:
    """The number in the first attribute of that name."""
    for one in node.attribute:
        if one.name == name:
            return float(one.f if one.type == onnx.AttributeProto.FLOAT else one.i)
    return default
