"""Rewrites a copy of a model so that public evaluators can compute it.

    TesselQuant(x)       ->  x * scale + offset        [-> round half to even -> clip to -128 .. 127]
    TesselDequant(x, w)  ->  x * scales(w), along axis 1; scales(w) are the low 32 bits of each word as a float
    INT8, INT32 operands ->  floating-point initializers of the same values
    Resize(sizes)        ->  -1 becomes the input's own size; empty roi, scales and sizes become omitted ones

What is computed on quantized values carries `Convention.element_type`; everything else is left as it is. Nested
bodies are not rewritten, so a quantize node inside one is refused.
"""

from __future__ import annotations

from collections.abc import Sequence
from dataclasses import dataclass
from os import PathLike, fspath
from typing import Any, Literal

import numpy as np
import numpy.typing as npt
import onnx
from onnx import TensorProto, numpy_helper

from onnxgraft.evaluation import quantized_values
from onnxgraft.evaluation.errors import EvaluationError
from onnxgraft.evaluation.node_writer import NodeWriter, bodies
from onnxgraft.evaluation.ranks import known_ranks

Array = npt.NDArray[Any]

OWN_OPERATORS = ("TesselQuant", "TesselDequant")
_OLDEST_OPERATOR_SET = 11  # of Round and of Clip with bounds as inputs
_OPERAND_TYPES = (TensorProto.INT8, TensorProto.UINT8, TensorProto.INT32, TensorProto.FLOAT, TensorProto.DOUBLE)
_TYPES = {"float32": (TensorProto.FLOAT, np.float32), "float64": (TensorProto.DOUBLE, np.float64)}
_LOWEST, _HIGHEST = -128, 127


@dataclass(frozen=True)
class Convention:
    """How the quantized operators are read.

    Attributes:
        rounding: Whether a quantize node rounds (half to even) and clips to -128 .. 127, or only multiplies and adds.
        element_type: What holds the quantized values. Sums of integers are exact below 2**24 in "float32" and below
            2**53 in "float64".
        centred: Whether a `Conv` that reads the output of a `TesselQuant` itself takes that node's offset out of it
            again. A `Conv` that reads it through another operator never does.
    """

    rounding: bool = False
    element_type: Literal["float32", "float64"] = "float32"
    centred: bool = False


def lower(
    model: onnx.ModelProto, convention: Convention | None = None, *, folder: str | PathLike[str] = ""
) -> onnx.ModelProto:
    """A copy of `model` that holds standard operators on floating-point tensors only.

    Args:
        model: The model; it is not changed. Its nodes must be in topological order.
        convention: How the quantized operators are read; None for the defaults.
        folder: The folder that the locations of external tensors start from.

    Returns:
        The copy. Tensors keep their names; tensors of quantized values are of `convention.element_type` there.

    Raises:
        EvaluationError: A `TesselDequant` without constant scales, a quantize node in a nested body, or an operator
            set older than 11.
    """
    return _Lowering(model, convention or Convention(), fspath(folder)).run()


def unpack_scales(words: Array) -> npt.NDArray[np.float32]:
    """The 32-bit floats in the low halves of 64-bit words, shape [C]."""
    return words.astype(np.uint32).view(np.float32).reshape(-1)


def quantize_parameter(node: onnx.NodeProto, name: str, default: float) -> float:
    """The first attribute of that name as a number; `default` if there is none or it is no number."""
    for attribute in node.attribute:
        if attribute.name == name:
            if attribute.type == onnx.AttributeProto.INT:
                return float(attribute.i)
            return attribute.f if attribute.type == onnx.AttributeProto.FLOAT else default
    return default


class _Lowering:
    def __init__(self, model: onnx.ModelProto, convention: Convention, folder: str) -> None:
        self._model = onnx.ModelProto()
        self._model.CopyFrom(model)
        self._graph = self._model.graph
        self._convention = convention
        self._type, self._dtype = _TYPES[convention.element_type]
        self._folder = folder
        self._opsets = {"" if o.domain == "ai.onnx" else o.domain: o.version for o in model.opset_import}
        self._tensors = {tensor.name: tensor for tensor in reversed(self._graph.initializer)}
        self._write = NodeWriter(self._graph)
        self._quantizers: dict[str, onnx.NodeProto] = {}
        self._converted: dict[str, str] = {}

    def run(self) -> onnx.ModelProto:
        self._check()
        quantized = quantized_values.find(self._graph, self._opsets)
        for index, node in enumerate(self._graph.node):
            for position, name in enumerate(node.input):
                if (index, position) in quantized.operands and name in self._tensors:
                    node.input[position] = self._operand(name)
            if node.op_type == "TesselQuant":
                self._quantizers[node.output[0]] = node
                self._quantize(node)
                continue
            if node.op_type == "Conv" and self._convention.centred:
                self._centre(node)
            if node.op_type == "Resize":
                self._resize(node)
            self._write.nodes.append(node)
        self._install()
        self._lower_dequantize_nodes()
        self._settle_declarations(quantized.tensors)
        return self._model

    def _check(self) -> None:
        version = self._opsets.get("", 0)
        if version < _OLDEST_OPERATOR_SET:
            raise EvaluationError(f"operator set {version} is too old to evaluate: {_OLDEST_OPERATOR_SET} is needed")
        todo = [body for node in self._graph.node for body in bodies(node)]
        while todo:
            for node in todo.pop().node:
                if node.op_type in OWN_OPERATORS:
                    raise EvaluationError(f"{_label(node)} is inside a nested body, where it cannot be evaluated")
                todo += bodies(node)

    def _array(self, name: str) -> Array:
        return np.asarray(numpy_helper.to_array(self._tensors[name], self._folder))

    def _operand(self, name: str) -> str:
        """The initializer with the same values in the element type of quantized values."""
        kind = self._tensors[name].data_type
        if kind == self._type or kind not in _OPERAND_TYPES:
            return name
        if name not in self._converted:
            self._converted[name] = self._write.constant(f"{name}_as_float", self._array(name).astype(self._dtype))
        return self._converted[name]

    def _scalar(self, stem: str, value: float) -> str:
        return self._write.constant(stem, np.array(value, self._dtype))

    def _quantize(self, node: onnx.NodeProto) -> None:
        write, output = self._write, node.output[0]
        scale, offset = quantize_parameter(node, "scale", 1.0), quantize_parameter(node, "offset", 0.0)
        value = write.inner("Cast", [node.input[0]], output, to=self._type)
        value = write.inner("Mul", [value, self._scalar(f"{output}_scale", scale)], output)
        inputs = [value, self._scalar(f"{output}_offset", offset)]
        if not self._convention.rounding:
            write.node("Add", inputs, output)
            return
        value = write.inner("Round", [write.inner("Add", inputs, output)], output)
        bounds = [self._scalar(f"{output}_bound", bound) for bound in (_LOWEST, _HIGHEST)]
        write.node("Clip", [value, *bounds], output)

    def _centre(self, node: onnx.NodeProto) -> None:
        quantizer = self._quantizers.get(node.input[0])
        offset = quantize_parameter(quantizer, "offset", 0.0) if quantizer is not None else 0.0
        if offset:
            stem = node.input[0]
            node.input[0] = self._write.inner("Sub", [stem, self._scalar(f"{stem}_offset", offset)], stem)

    def _resize(self, node: onnx.NodeProto) -> None:
        for position, name in enumerate(node.input):
            if position and name in self._tensors and not self._array(name).size:
                node.input[position] = ""
        has_sizes = len(node.input) > 3 and node.input[3] in self._tensors
        if not has_sizes or not (self._array(node.input[3]) == -1).any():
            return
        write, name = self._write, node.input[3]
        own = write.inner("Shape", [node.input[0]], name)
        for attribute in node.attribute:
            if attribute.name == "axes":
                axes = write.constant(f"{name}_axes", np.array(attribute.ints, np.int64))
                own = write.inner("Gather", [own, axes], name)
        keep = write.constant(f"{name}_keep", self._array(name) == -1)
        node.input[3] = write.inner("Where", [keep, own, name], name)

    def _lower_dequantize_nodes(self) -> None:
        ranks = known_ranks(self._model) if any(n.op_type == "TesselDequant" for n in self._graph.node) else {}
        for node in self._graph.node:
            if node.op_type == "TesselDequant":
                self._dequantize(node, ranks.get(node.input[0]))
            else:
                self._write.nodes.append(node)
        self._install()

    def _dequantize(self, node: onnx.NodeProto, rank: int | None) -> None:
        write, output = self._write, node.output[0]
        if len(node.input) != 2 or node.input[1] not in self._tensors:
            raise EvaluationError(f"{_label(node)}: its second input must be an initializer that holds the scales")
        scales = unpack_scales(self._array(node.input[1])).astype(self._dtype)
        data = write.inner("Cast", [node.input[0]], output, to=self._type)
        if scales.size == 1:
            factor = self._scalar(f"{output}_scale", scales[0])
        elif rank is not None:
            if rank < 2:
                raise EvaluationError(f"{_label(node)}: {scales.size} scales need axis 1, the input is of rank {rank}")
            factor = write.constant(f"{output}_scales", scales.reshape(-1, *[1] * (rank - 2)))
        else:
            factor = self._scales_of_any_rank(data, scales, output)
        if self._type == TensorProto.FLOAT:
            write.node("Mul", [data, factor], output)
        else:
            write.node("Cast", [write.inner("Mul", [data, factor], output)], output, to=TensorProto.FLOAT)

    def _scales_of_any_rank(self, data: str, scales: Array, stem: str) -> str:
        """Scales of shape [C, 1, ..., 1], with as many ones as `data` has axes behind axis 1."""
        write = self._write
        behind = [write.constant(f"{stem}_bounds", np.array([bound], np.int64)) for bound in (2, 2**31 - 1)]
        tail = write.inner("Slice", [write.inner("Shape", [data], stem), *behind], stem)
        one = numpy_helper.from_array(np.ones(1, np.int64))
        ones = write.inner("ConstantOfShape", [write.inner("Shape", [tail], stem)], stem, value=one)
        count = write.constant(f"{stem}_count", np.array([scales.size], np.int64))
        shape = write.inner("Concat", [count, ones], stem, axis=0)
        return write.inner("Reshape", [write.constant(f"{stem}_scales", scales), shape], stem)

    def _install(self) -> None:
        """Puts what was written so far into the graph."""
        _replace(self._graph.node, self._write.nodes)
        self._graph.initializer.extend(self._write.initializers)
        self._write.nodes, self._write.initializers = [], []

    def _settle_declarations(self, quantized: set[str]) -> None:
        """Takes away what is not read any more, or no longer true."""
        graph = self._graph
        used = {value.name for value in graph.output}
        todo = [graph]
        while todo:
            for node in todo.pop().node:
                used.update(node.input)
                for body in bodies(node):
                    used.update(value.name for value in body.output)
                    todo.append(body)
        gone = self._tensors.keys() - used
        for field in (graph.initializer, graph.input):
            for index in reversed(range(len(field))):
                if field[index].name in gone:
                    del field[index]
        for value in graph.output:
            if value.name in quantized:
                value.type.tensor_type.elem_type = self._type
        del graph.value_info[:]


def _replace(nodes: Any, new: Sequence[onnx.NodeProto]) -> None:
    copies = [onnx.NodeProto.FromString(node.SerializeToString()) for node in new]
    del nodes[:]
    nodes.extend(copies)


def _label(node: onnx.NodeProto) -> str:
    return f"{node.op_type} '{node.name or node.output[0]}'"
