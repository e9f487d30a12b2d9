"""The numbers that quantized operators compute with, read from a finished graph."""

from __future__ import annotations

import math
from collections.abc import Iterator
from typing import Any, NamedTuple

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
    tensors = {tensor.name: tensor for tensor in reversed(host.graph.initializer)}
    if not any(tensor.data_type == TensorProto.INT8 for tensor in tensors.values()):
        return
    quantized = quantized_values.find(host.graph, host.opsets).tensors
    work = host.workpiece()
    quantizers: dict[str, _Quantizer] = {}  # quantized tensor -> the node that it comes from
    for node in host.graph.node:
        op, outputs = node.op_type, node.output[:1]
        if not outputs:
            continue
        inputs = node.input[:]
        sources = [name for name in inputs if name in quantizers]
        if op == "TesselQuant":
            quantizers[outputs[0]] = _quantizer(node)
        elif sources and outputs[0] in quantized:
            quantizers[outputs[0]] = quantizers[sources[0]]
        weight = tensors.get(inputs[1]) if sources and len(inputs) > 1 else None
        if weight is None or weight.data_type != TensorProto.INT8 or op not in quantized_values.INTEGER_OPERATORS:
            continue
        fed = quantizers[sources[0]]
        is_centred = op == "Conv" and fed.output == inputs[0]
        largest = -_LOWEST + (abs(fed.offset) if is_centred else 0)
        values = work.values(weight)
        bias = work.values(tensors[inputs[2]]) if len(inputs) > 2 and inputs[2] in tensors else None
        bits = 0 if values is None else _bits(_largest_sum(node, values) * largest, bias)
        yield OperatorNumbers(label(node), outputs[0], fed.scale, fed.offset, fed.low, fed.high, bits, weight=inputs[1])


class _Quantizer(NamedTuple):
    """The output of a quantize node, its numbers, and the values that it does not cut off."""

    output: str
    scale: float
    offset: float
    low: float
    high: float


def _quantizer(node: onnx.NodeProto) -> _Quantizer:
    scale, offset = quantize_parameter(node, "scale", 1.0), quantize_parameter(node, "offset", 0.0)
    ends = sorted((step - offset) / scale for step in (_LOWEST, _HIGHEST)) if scale else [-math.inf, math.inf]
    return _Quantizer(node.output[0], scale, offset, ends[0], ends[1])


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
    blocks = (rows[start : start + step] for start in range(0, len(rows), step))
    # |-128| is 128 as an unsigned byte.
    return float(max(np.abs(block).view(np.uint8).sum(axis=1, dtype=np.int64).max() for block in blocks))


def _bits(largest: float, bias: Array | None) -> int:
    if bias is not None and bias.dtype.kind in "iuf":
        largest += float(np.abs(bias.astype(np.float64)).max(initial=0.0))
    return math.ceil(math.log2(largest + 1)) + 1 if math.isfinite(largest) else 0
