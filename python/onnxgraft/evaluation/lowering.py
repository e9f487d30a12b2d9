"""Rewrites a copy of a model so that public evaluators can compute it.

    TesselQuant(x)       ->  x * scale + offset        [-> round half to even -> clip to -128 .. 127]
    TesselDequant(x, w)  ->  x * scales(w), along axis 1; scales(w) are the low 32 bits of each word as a float; cast to
                             the declared floating type of the result, otherwise to that of the quantized tensor
    INT8, INT32 operands ->  floating-point initializers of the same values
    Resize(sizes)        ->  -1 becomes the input's own size; empty roi, scales and sizes become omitted ones, except
                             for roi and scales in operator sets 11 and 12, which require them

Everything that is computed on quantized values has the type `Convention.element_type`; the rest is left as it is.
Nested bodies are not rewritten, so a quantize node inside one is refused.
"""

from __future__ import annotations

from collections.abc import Sequence
from os import PathLike, fspath
from typing import Any

import numpy as np
import numpy.typing as npt
import onnx
from onnx import TensorProto, numpy_helper

from onnxgraft.errors import EvaluationError
from onnxgraft.evaluation.convention import Convention
from onnxgraft.evaluation.lowered_graph import check, drop_unread, take_in_small_tensors, values_of, versions
from onnxgraft.evaluation.node_writer import NodeWriter
from onnxgraft.evaluation.operator_formulas import (
    label,
    quantize_parameter,
    settle_resize,
    write_dequantize,
    write_quantize,
)
from onnxgraft.tensor_types import TensorTypes, quantized_values

Array = npt.NDArray[Any]

_FIRST_WITH_OPTIONAL_ROI = 13  # and scales, of Resize
_OPERAND_TYPES = (TensorProto.INT8, TensorProto.UINT8, TensorProto.INT32, TensorProto.FLOAT, TensorProto.DOUBLE)


def lower(
    model: onnx.ModelProto, convention: Convention | None = None, *, folder: str | PathLike[str] = ""
) -> onnx.ModelProto:
    """A copy of `model` with only standard operators on floating-point tensors.

    Args:
        model: The model; it is not changed. Its nodes must be in topological order.
        convention: How the quantized operators are read; None for the defaults.
        folder: The folder that the locations of external tensors start from.

    Returns:
        The copy. Tensors keep their names; tensors of quantized values are of `convention.element_type` there.

    Raises:
        EvaluationError: A `TesselDequant` without constant scales, a quantize node in a nested body, or an operator set
            older than 11.
    """
    return _Lowering(model, convention or Convention(), fspath(folder)).run()


class _Lowering:
    def __init__(self, model: onnx.ModelProto, convention: Convention, folder: str) -> None:
        self._model = onnx.ModelProto()
        self._model.CopyFrom(model)
        self._graph = self._model.graph
        self._convention = convention
        self._folder = folder
        self._opsets = versions(model)
        self._tensors = {tensor.name: tensor for tensor in reversed(self._graph.initializer)}
        self._write = NodeWriter(self._graph)
        self._quantizers: dict[str, onnx.NodeProto] = {}
        self._converted: dict[str, str] = {}

    def run(self) -> onnx.ModelProto:
        check(self._graph, self._opsets)
        take_in_small_tensors(self._graph, self._folder)
        quantized = quantized_values.find(self._graph, self._opsets)
        types = TensorTypes(self._graph, self._opsets, self._at_hand)
        for index, node in enumerate(self._graph.node):
            for position, name in enumerate(node.input):
                if (index, position) in quantized.operands and name in self._tensors:
                    node.input[position] = self._operand(name)
            if node.op_type == "TesselQuant":
                self._quantizers[node.output[0]] = node
                write_quantize(self._write, node, self._convention)
                continue
            if node.op_type == "TesselDequant":
                self._dequantize(node, types)
                continue
            if node.op_type == "Conv" and self._convention.centred:
                self._centre(node)
            if node.op_type == "Resize":
                constants = {name: self._array(name) for name in node.input[1:] if name in self._tensors}
                needs_empty = self._opsets[""] < _FIRST_WITH_OPTIONAL_ROI
                settle_resize(self._write, node, constants, needs_empty=needs_empty)
            self._write.nodes.append(node)
        self._install()
        self._settle_declarations(quantized.tensors, types)
        return self._model

    def _array(self, name: str) -> Array:
        return values_of(self._tensors[name], self._folder)

    def _at_hand(self, tensor: onnx.TensorProto) -> onnx.TensorProto:
        return numpy_helper.from_array(values_of(tensor, self._folder), tensor.name)

    def _operand(self, name: str) -> str:
        """The initializer with the same values in the element type of quantized values."""
        kind = self._tensors[name].data_type
        if kind == self._convention.onnx_type or kind not in _OPERAND_TYPES:
            return name
        if name not in self._converted:
            self._converted[name] = self._write.constant(
                f"{name}_as_float", self._array(name).astype(self._convention.dtype)
            )
        return self._converted[name]

    def _centre(self, node: onnx.NodeProto) -> None:
        quantizer = self._quantizers.get(node.input[0])
        offset = quantize_parameter(quantizer, "offset", 0.0) if quantizer is not None else 0.0
        if offset:
            stem = node.input[0]
            constant = self._write.constant(f"{stem}_offset", np.array(offset, self._convention.dtype))
            node.input[0] = self._write.inner("Sub", [stem, constant], stem)

    def _dequantize(self, node: onnx.NodeProto, types: TensorTypes) -> None:
        if len(node.input) != 2 or node.input[1] not in self._tensors:
            raise EvaluationError(f"{label(node)}: its second input must be an initializer that holds the scales")
        write_dequantize(self._write, node, self._array(node.input[1]), types.get(node.output[0]), self._convention)

    def _install(self) -> None:
        """Moves the nodes and initializers written so far into the graph."""
        _replace(self._graph.node, self._write.nodes)
        self._graph.initializer.extend(self._write.initializers)
        self._write.nodes, self._write.initializers = [], []

    def _settle_declarations(self, quantized: set[str], types: TensorTypes) -> None:
        """Removes entries that have no reader or are no longer true, and records the known types of outputs."""
        graph = self._graph
        drop_unread(graph, self._tensors)
        for value in graph.output:
            kind = types.get(value.name)
            if kind is not None and kind.dims is not None and not value.type.tensor_type.HasField("shape"):
                value.CopyFrom(kind.declare(value.name))
            if value.name in quantized:
                value.type.tensor_type.elem_type = self._convention.onnx_type
        del graph.value_info[:]


def _replace(nodes: Any, new: Sequence[onnx.NodeProto]) -> None:
    copies = [onnx.NodeProto.FromString(node.SerializeToString()) for node in new]
    del nodes[:]
    nodes.extend(copies)
