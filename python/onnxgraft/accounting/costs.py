"""Multiply-adds of an operator, from the shapes of its tensors."""

from __future__ import annotations

import functools
import math
from collections.abc import Callable, Mapping, Sequence
from itertools import chain

from onnx import GraphProto, NodeProto, TypeProto

Shape = Sequence[int | None] | None
ShapeOf = Callable[[str], Shape]


def declared_shapes(graph: GraphProto) -> ShapeOf:
    """The shapes that a graph declares. A symbolic first axis counts as 1: the results are for one sample."""
    declared = chain(graph.value_info, graph.output, graph.input)
    values = {value.name: value for value in declared if value.type.tensor_type.HasField("shape")}
    tensors = {tensor.name: tensor for tensor in graph.initializer}

    def shape_of(name: str) -> Shape:
        if name in tensors:
            return tensors[name].dims[:]
        return _sizes(values[name].type.SerializeToString()) if name in values else None

    return shape_of


@functools.lru_cache(maxsize=1024)
def _sizes(content: bytes) -> Shape:
    """Of a serialized type; few types cover many tensors."""
    dims = TypeProto.FromString(content).tensor_type.shape.dim
    sizes = [size.dim_value if size.HasField("dim_value") else None for size in dims]
    return [1, *sizes[1:]] if sizes and sizes[0] is None else sizes


def multiply_adds(node: NodeProto, shape_of: ShapeOf) -> int | None:
    """How many multiply-adds one run takes; None if a size is not known.

    A convolution takes output elements x weight elements per output channel, a transposed one input elements x weight
    elements per input channel, a matrix product output elements x the inner size.
    """
    formula = _FORMULAS.get(node.op_type)
    if formula is None or len(node.input) < 2 or not node.output:
        return None
    return formula(node, shape_of)


def _conv(node: NodeProto, shape_of: ShapeOf) -> int | None:
    return _product(shape_of(node.output[0]), _rest(shape_of(node.input[1])))


def _conv_transpose(node: NodeProto, shape_of: ShapeOf) -> int | None:
    return _product(shape_of(node.input[0]), _rest(shape_of(node.input[1])))


def _gemm(node: NodeProto, shape_of: ShapeOf) -> int | None:
    shape = shape_of(node.input[0])
    if shape is None or len(shape) != 2:
        return None
    transposed = any(attribute.name == "transA" and attribute.i for attribute in node.attribute)
    return _product(shape_of(node.output[0]), [shape[0 if transposed else 1]])


def _matmul(node: NodeProto, shape_of: ShapeOf) -> int | None:
    shape = shape_of(node.input[0])
    return None if not shape else _product(shape_of(node.output[0]), [shape[-1]])


_FORMULAS: Mapping[str, Callable[[NodeProto, ShapeOf], int | None]] = {
    "Conv": _conv,
    "ConvTranspose": _conv_transpose,
    "Gemm": _gemm,
    "MatMul": _matmul,
}


def _rest(shape: Shape) -> Shape:
    return None if shape is None else shape[1:]


def _product(left: Shape, right: Shape) -> int | None:
    if left is None or right is None:
        return None
    sizes = [*left, *right]
    return None if None in sizes else math.prod(size for size in sizes if size is not None)
