"""Which tensors hold quantized values, and which initializers are computed with them.

A tensor is quantized if a `TesselQuant` writes it, or an operator that passes on the element type of a quantized input.
The operators' schemas decide: the indices of a `Gather` or the bounds of a `Slice` have another type than the data and
stay integers.
"""

from __future__ import annotations

from collections.abc import Iterable, Iterator, Mapping
from dataclasses import dataclass, field
from itertools import islice
from typing import TypeAlias

import onnx

# The types of inputs and outputs by position, in the names of the operator's schema.
_Types: TypeAlias = tuple[tuple[str, ...], tuple[str, ...]]

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
    types: dict[tuple[str, str, int, int], _Types] = {}  # the schema is read once for equal nodes
    for index, node in enumerate(graph.node):
        op = node.op_type
        if op == "TesselQuant":
            found.tensors.update(node.output)
        elif op != "TesselDequant":
            inputs = node.input[:]
            starts = found.tensors.intersection(inputs)
            if op in INTEGER_OPERATORS:
                starts |= narrow.intersection(inputs)
            if starts:
                key = (node.domain, op, len(inputs), len(node.output))
                if key not in types:
                    types[key] = _types(key, opsets)
                _follow(index, node, starts, types[key], found)
    return found


def _follow(index: int, node: onnx.NodeProto, starts: set[str], types: _Types, found: QuantizedValues) -> None:
    inputs, outputs = types
    quantized = {kind for name, kind in zip(node.input, inputs, strict=False) if name in starts and "(" not in kind}
    found.operands.update((index, position) for position, kind in enumerate(inputs) if kind in quantized)
    found.tensors.update(name for name, kind in zip(node.output, outputs, strict=False) if name and kind in quantized)


def _types(key: tuple[str, str, int, int], opsets: Mapping[str, int]) -> _Types:
    """The types of the inputs and outputs of a node; empty if the operator is not known."""
    domain, op, inputs, outputs = key
    domain = "" if domain == "ai.onnx" else domain
    try:
        schema = onnx.defs.get_schema(op, opsets.get(domain, 1), domain)
    except onnx.defs.SchemaError:
        return (), ()
    return tuple(islice(_spread(schema.inputs), inputs)), tuple(islice(_spread(schema.outputs), outputs))


def _spread(parameters: Iterable[onnx.defs.OpSchema.FormalParameter]) -> Iterator[str]:
    """The type of each position; a variadic parameter covers all that follow."""
    variadic = onnx.defs.OpSchema.FormalParameterOption.Variadic
    for parameter in parameters:
        yield parameter.type_str
        while parameter.option == variadic:
            yield parameter.type_str
