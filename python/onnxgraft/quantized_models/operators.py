"""THE table of operators that compute on integers: the positions of their operands, scales and zero points.

Each is rewritten to DequantizeLinear nodes, the float operator and a QuantizeLinear node, so that later code knows only
these two.
"""

from __future__ import annotations

import types
from collections.abc import Callable, Mapping
from dataclasses import dataclass

import onnx
from onnx import helper

QUANTIZE, DEQUANTIZE = "QuantizeLinear", "DequantizeLinear"
_ONNX = ("", "ai.onnx")
_MICROSOFT = "com.microsoft"
# Attributes of the integer operators that the float ones do not have.
_DROPPED = {"channels_last", "opset"}
# The axis along which the weights of these have scales.
_CHANNEL_AXES = {"Conv": 0, "MatMul": -1}


@dataclass(frozen=True)
class IntegerOperator:
    """One row.

    Attributes:
        floats: The float operator.
        operands: Positions of tensors, each followed by scale and zero point.
        result: Position of the result's scale, which its zero point follows.
        bias: Position of an INT32 bias, whose scale is the product of those of the operands.
        plain: Positions of inputs that are not quantized tensors and come first.
        repeats: Whether operands go on to the end of the inputs.
    """

    floats: str
    operands: tuple[int, ...]
    result: int
    bias: int | None = None
    plain: tuple[int, ...] = ()
    repeats: bool = False


def _unary(floats: str) -> IntegerOperator:
    return IntegerOperator(floats, (0,), 3)


INTEGER_OPERATORS: Mapping[str, IntegerOperator] = types.MappingProxyType(
    {
        "QLinearConv": IntegerOperator("Conv", (0, 3), 6, bias=8),
        "QLinearMatMul": IntegerOperator("MatMul", (0, 3), 6),
        "QGemm": IntegerOperator("Gemm", (0, 3), 7, bias=6),
        "QLinearAdd": IntegerOperator("Add", (0, 3), 6),
        "QLinearMul": IntegerOperator("Mul", (0, 3), 6),
        "QLinearConcat": IntegerOperator("Concat", (2,), 0, repeats=True),
        "QLinearWhere": IntegerOperator("Where", (1, 4), 7, plain=(0,)),
        "QLinearAveragePool": _unary("AveragePool"),
        "QLinearGlobalAveragePool": _unary("GlobalAveragePool"),
        "QLinearLeakyRelu": _unary("LeakyRelu"),
        "QLinearSigmoid": _unary("Sigmoid"),
        "QLinearSoftmax": _unary("Softmax"),
    }
)


def is_quantizing(node: onnx.NodeProto) -> bool:
    """Whether the node expresses quantization that `read_quantized` knows."""
    if node.op_type in {QUANTIZE, DEQUANTIZE}:
        return node.domain in {*_ONNX, _MICROSOFT}
    return node.op_type in INTEGER_OPERATORS and node.domain in {*_ONNX, _MICROSOFT}


def written_out(node: onnx.NodeProto, fresh: Callable[[str], str]) -> list[onnx.NodeProto] | None:
    """The nodes that replace an integer operator; None for any other node, and for forms without a float operator."""
    row = INTEGER_OPERATORS.get(node.op_type)
    if row is None or node.domain not in {*_ONNX, _MICROSOFT}:
        return None
    attributes = {attribute.name: helper.get_attribute_value(attribute) for attribute in node.attribute}
    if attributes.get("channels_last") or (row.floats == "Gemm" and attributes.get("alpha", 1.0) != 1.0):
        return None
    weight_axis = _CHANNEL_AXES.get(row.floats, 0 if attributes.get("transB") else 1)
    inputs = [*node.input, *[""] * 10]
    starts = range(row.operands[0], len(node.input), 3) if row.repeats else row.operands
    nodes, reads = [], [inputs[position] for position in row.plain]
    for position in starts:
        tensor, *parameters = inputs[position : position + 3]
        reads.append(fresh(f"{tensor}_float"))
        nodes.append(_linear(DEQUANTIZE, [tensor, *parameters], reads[-1], weight_axis))
    if row.bias is not None and inputs[row.bias]:
        first, second = row.operands
        scale = fresh(f"{inputs[row.bias]}_scale")
        nodes.append(helper.make_node("Mul", [inputs[first + 1], inputs[second + 1]], [scale]))
        reads.append(fresh(f"{inputs[row.bias]}_float"))
        nodes.append(_linear(DEQUANTIZE, [inputs[row.bias], scale], reads[-1], 0))
    is_float = not inputs[row.result]
    result = node.output[0] if is_float else fresh(node.output[0].removesuffix("_quantized"))
    operator = helper.make_node(row.floats, reads, [result], node.name)
    operator.attribute.extend(attribute for attribute in node.attribute if attribute.name not in _DROPPED)
    nodes.append(operator)
    if not is_float:
        nodes.append(_linear(QUANTIZE, [result, *inputs[row.result : row.result + 2]], node.output[0], 1))
    return nodes


def _linear(kind: str, inputs: list[str], output: str, axis: int) -> onnx.NodeProto:
    while not inputs[-1]:
        inputs.pop()
    return helper.make_node(kind, inputs, [output], axis=axis)
