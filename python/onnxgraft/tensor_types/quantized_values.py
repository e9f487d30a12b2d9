"""Which tensors hold quantized values, and which initializers are computed with them.

A tensor is quantized if a `TesselQuant` writes it, or an operator that passes on the element type of a quantized input.
The operators' schemas decide: the indices of a `Gather` or the bounds of a `Slice` have another type than the data and
stay integers.
"""

from __future__ import annotations

from collections.abc import Iterable, Iterator, Mapping
from dataclasses import dataclass, field

import onnx

# Reading an INT8 initializer is enough to make these quantized, whatever their data input.
INTEGER_OPERATORS = ("Conv", "ConvTranspose", "Gemm", "MatMul")


@dataclass
class QuantizedValues:
    """The parts of one graph that are computed on quantized values."""

    tensors: set[str] = field(default_factory=set)
    # (node index, input position) of every operand with the same type as a quantized one
    operands: set[tuple[int, int]] = field(default_factory=set)


def find(graph: onnx.GraphProto, opsets: Mapping[str, int]) -> QuantizedValues:
    """Follows the quantized values through the graph's own nodes, which must be in topological order."""
    narrow = {tensor.name for tensor in graph.initializer if tensor.data_type == onnx.TensorProto.INT8}
    found = QuantizedValues()
    for index, node in enumerate(graph.node):
        if node.op_type == "TesselQuant":
            found.tensors.update(node.output)
        elif node.op_type != "TesselDequant":
            _follow(index, node, opsets, narrow, found)
    return found


def _follow(
    index: int, node: onnx.NodeProto, opsets: Mapping[str, int], narrow: set[str], found: QuantizedValues
) -> None:
    more = narrow if node.op_type in INTEGER_OPERATORS else ()
    starts = {name for name in node.input if name in found.tensors or name in more}
    if not starts:
        return
    domain = "" if node.domain == "ai.onnx" else node.domain
    try:
        schema = onnx.defs.get_schema(node.op_type, opsets.get(domain, 1), domain)
    except onnx.defs.SchemaError:
        return
    types = dict(zip(range(len(node.input)), _spread(schema.inputs), strict=False))
    quantized = {kind for position, kind in types.items() if node.input[position] in starts and "(" not in kind}
    found.operands.update((index, position) for position, kind in types.items() if kind in quantized)
    found.tensors.update(
        name for name, kind in zip(node.output, _spread(schema.outputs), strict=False) if name and kind in quantized
    )


def _spread(parameters: Iterable[onnx.defs.OpSchema.FormalParameter]) -> Iterator[str]:
    """The type of each position; a variadic parameter covers all that follow."""
    variadic = onnx.defs.OpSchema.FormalParameterOption.Variadic
    for parameter in parameters:
        yield parameter.type_str
        while parameter.option == variadic:
            yield parameter.type_str
