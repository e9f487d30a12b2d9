"""The numbers that quantized operators compute with, read from a finished graph."""

from __future__ import annotations

import math
from collections.abc import Iterator
from typing import Any

import numpy as np
import numpy.typing as npt
import onnx
from onnx import TensorProto

from onnxgraft.evaluation.operator_formulas import label, quantize_parameter
from onnxgraft.following import Host
from onnxgraft.report.operator_numbers import OperatorNumbers
from onnxgraft.tensor_types import quantized_values

Array = npt.NDArray[Any]

_LOWEST, _HIGHEST = -128, 127
_BLOCK = 1 << 20  # elements of a weight that are widened at a time


def operator_numbers(host: Host) -> Iterator[OperatorNumbers]:
    """One for each operator with an INT8 weight that a quantize node feeds, in graph order.

    The bits are those of the largest sum that the weights allow: with m the largest |q| that the operator can meet,

        max over output channels of (m * sum(|w|) + |b|)

    where m is 128, or 128 + |offset| for a `Conv` that subtracts the offset of its own quantize node.
    """
    quantized = quantized_values.find(host.graph, host.opsets).tensors
    tensors = {tensor.name: tensor for tensor in reversed(host.graph.initializer)}
    work = host.workpiece()
    quantizers: dict[str, onnx.NodeProto] = {}  # quantized tensor -> the node that it comes from
    for node in host.graph.node:
        if not node.output:
            continue
        sources = [name for name in node.input if name in quantizers]
        if node.op_type == "TesselQuant":
            quantizers[node.output[0]] = node
        elif sources and node.output[0] in quantized:
            quantizers[node.output[0]] = quantizers[sources[0]]
        weight = tensors.get(node.input[1]) if len(node.input) > 1 else None
        is_integer = weight is not None and weight.data_type == TensorProto.INT8 and sources
        if weight is None or not is_integer or node.op_type not in quantized_values.INTEGER_OPERATORS:
            continue
        quantizer = quantizers[sources[0]]
        scale, offset = quantize_parameter(quantizer, "scale", 1.0), quantize_parameter(quantizer, "offset", 0.0)
        ends = sorted((step - offset) / scale for step in (_LOWEST, _HIGHEST)) if scale else [-math.inf, math.inf]
        is_centred = node.op_type == "Conv" and quantizer.output[0] == node.input[0]
        largest = -_LOWEST + (abs(offset) if is_centred else 0)
        values = work.values(weight)
        bias = work.values(tensors[node.input[2]]) if len(node.input) > 2 and node.input[2] in tensors else None
        bits = 0 if values is None else _bits(_largest_sum(node, values) * largest, bias)
        yield OperatorNumbers(label(node), node.output[0], scale, offset, ends[0], ends[1], bits, weight=node.input[1])


def _largest_sum(node: onnx.NodeProto, weight: Array) -> float:
    """The largest sum of |w| over the weights of one output element."""
    if not weight.size:
        return 0.0
    if weight.ndim < 2:
        rows = weight.reshape(1, -1)
    elif node.op_type == "Conv":
        rows = weight.reshape(len(weight), -1)
    elif node.op_type == "ConvTranspose":
        rows = np.moveaxis(weight, 1, 0).reshape(weight.shape[1], -1)
    else:
        is_turned = any(entry.name == "transB" and entry.i for entry in node.attribute)
        matrix = weight if is_turned else np.swapaxes(weight, -1, -2)
        rows = matrix.reshape(-1, matrix.shape[-1])
    step = max(1, _BLOCK // max(1, rows.shape[1]))
    blocks = (rows[start : start + step].astype(np.int32) for start in range(0, len(rows), step))
    return float(max((np.abs(block).sum(axis=1, dtype=np.int64).max(initial=0) for block in blocks), default=0))


def _bits(largest: float, bias: Array | None) -> int:
    if bias is not None and bias.dtype.kind in "iuf":
        largest += float(np.abs(bias.astype(np.float64)).max(initial=0.0))
    return math.ceil(math.log2(largest + 1)) + 1 if math.isfinite(largest) else 0
