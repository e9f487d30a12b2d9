"""Writes quantize nodes, dequantize nodes and `Resize` as standard operators on floating-point tensors."""

from __future__ import annotations

from collections.abc import Mapping
from typing import Any

import numpy as np
import numpy.typing as npt
import onnx
from onnx import TensorProto, numpy_helper

from onnxgraft.errors import EvaluationError
from onnxgraft.evaluation.convention import Convention
from onnxgraft.evaluation.node_writer import NodeWriter
from onnxgraft.tensor_types import Kind

Array = npt.NDArray[Any]

_LOWEST, _HIGHEST = -128, 127
_SIZES_INPUT = 3  # of Resize


def unpack_scales(words: Array) -> npt.NDArray[np.float32]:
    """The 32-bit floats in the low halves of 64-bit words, shape [C]."""
    return words.astype(np.uint32).view(np.float32).reshape(-1)


def quantize_parameter(node: onnx.NodeProto, name: str, default: float) -> float:
    """The first attribute of that name as a number; `default` if it is missing or not a number."""
    for attribute in node.attribute:
        if attribute.name == name:
            if attribute.type == onnx.AttributeProto.INT:
                return float(attribute.i)
            return attribute.f if attribute.type == onnx.AttributeProto.FLOAT else default
    return default


def label(node: onnx.NodeProto) -> str:
    """The name of a node in messages."""
    return f"{node.op_type} '{node.name or node.output[0]}'"


def write_quantize(write: NodeWriter, node: onnx.NodeProto, convention: Convention) -> None:
    """X * scale + offset, rounded and clipped if the convention says so."""
    output = node.output[0]

    def scalar(stem: str, value: float) -> str:
        return write.constant(f"{output}_{stem}", np.array(value, convention.dtype))

    value = write.inner("Cast", [node.input[0]], output, to=convention.onnx_type)
    value = write.inner("Mul", [value, scalar("scale", quantize_parameter(node, "scale", 1.0))], output)
    inputs = [value, scalar("offset", quantize_parameter(node, "offset", 0.0))]
    if not convention.rounding:
        write.node("Add", inputs, output)
        return
    value = write.inner("Round", [write.inner("Add", inputs, output)], output)
    write.node("Clip", [value, scalar("lowest", _LOWEST), scalar("highest", _HIGHEST)], output)


def write_dequantize(
    write: NodeWriter, node: onnx.NodeProto, words: Array, result: Kind | None, convention: Convention
) -> None:
    """X * scales along axis 1, as a tensor of kind `result`; float32 if the kind is unknown."""
    rank = None if result is None or result.dims is None else len(result.dims)
    element_type = TensorProto.FLOAT if result is None else result.element_type
    output = node.output[0]
    scales = unpack_scales(words).astype(convention.dtype)
    data = write.inner("Cast", [node.input[0]], output, to=convention.onnx_type)
    if scales.size == 1:
        factor = write.constant(f"{output}_scale", scales.reshape(()))
    elif rank is None:
        factor = _scales_of_any_rank(write, data, scales, output)
    elif rank >= 2:
        factor = write.constant(f"{output}_scales", scales.reshape(-1, *[1] * (rank - 2)))
    else:
        raise EvaluationError(f"{label(node)}: {scales.size} scales need axis 1, the input is of rank {rank}")
    if convention.onnx_type == element_type:
        write.node("Mul", [data, factor], output)
    else:
        write.node("Cast", [write.inner("Mul", [data, factor], output)], output, to=element_type)


def _scales_of_any_rank(write: NodeWriter, data: str, scales: Array, stem: str) -> str:
    """Scales of shape [C, 1, ..., 1], with as many ones as `data` has axes after axis 1."""
    bounds = [write.constant(f"{stem}_bounds", np.array([bound], np.int64)) for bound in (2, 2**31 - 1)]
    tail = write.inner("Slice", [write.inner("Shape", [data], stem), *bounds], stem)
    one = numpy_helper.from_array(np.ones(1, np.int64))
    ones = write.inner("ConstantOfShape", [write.inner("Shape", [tail], stem)], stem, value=one)
    count = write.constant(f"{stem}_count", np.array([scales.size], np.int64))
    shape = write.inner("Concat", [count, ones], stem, axis=0)
    return write.inner("Reshape", [write.constant(f"{stem}_scales", scales), shape], stem)


def settle_resize(
    write: NodeWriter, node: onnx.NodeProto, constants: Mapping[str, Array], *, needs_empty: bool
) -> None:
    """Completes the inputs of a `Resize`: empty ones are omitted, -1 in constant sizes is the input's own size.

    Args:
        write: Receives new nodes and constants.
        node: The node, which is changed.
        constants: Its constant inputs by name.
        needs_empty: Whether roi and scales must be there: operator sets 11 and 12 require an empty tensor.
    """
    for position, name in enumerate(node.input):
        is_needed = needs_empty and 0 < position < _SIZES_INPUT
        if position and name in constants and not constants[name].size and not is_needed:
            node.input[position] = ""
        elif not name and is_needed:
            node.input[position] = write.constant(f"{node.output[0]}_empty", np.zeros(0, np.float32))
    name = node.input[_SIZES_INPUT] if len(node.input) > _SIZES_INPUT else ""
    if name not in constants or not (constants[name] == -1).any():
        return
    own = write.inner("Shape", [node.input[0]], name)
    for attribute in node.attribute:
        if attribute.name == "axes":
            axes = write.constant(f"{name}_axes", np.array(attribute.ints, np.int64))
            own = write.inner("Gather", [own, axes], name)
    keep = write.constant(f"{name}_keep", constants[name] == -1)
    node.input[_SIZES_INPUT] = write.inner("Where", [keep, own, name], name)
