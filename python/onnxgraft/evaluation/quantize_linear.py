"""Rewrites a copy of a model to `QuantizeLinear` and `DequantizeLinear`, the form that other quantizing tools write.

    TesselQuant(x), scale s, offset o   ->  QuantizeLinear(x, 1 / s, o)
    Conv(q, w, b), then TesselDequant   ->  Conv(D(q, 1 / s, o), D(w, f * s), D(b, f)) on floats, D = DequantizeLinear
    TesselDequant(q, w) by itself       ->  D(q, f), along axis 1

with f the scales in the words. Since (1 / s) * (f * s) = f, the sums are those of the quantized operator times f, up to
the rounding of floats. A convolution that reads a quantize node directly subtracts its offset; for all others, D has
zero point 0. `QuantizeLinear` rounds before it adds the zero point, so ties may round the other way.
"""

from __future__ import annotations

from collections import Counter
from os import PathLike, fspath
from typing import Any

import numpy as np
import numpy.typing as npt
import onnx
from onnx import TensorProto, helper, numpy_helper

from onnxgraft.errors import EvaluationError
from onnxgraft.evaluation.lowered_graph import (
    OWN_OPERATORS,
    check,
    drop_unread,
    take_in_small_tensors,
    values_of,
    versions,
)
from onnxgraft.evaluation.node_writer import NodeWriter
from onnxgraft.evaluation.operator_formulas import label, quantize_parameter, settle_resize, unpack_scales
from onnxgraft.tensor_types import TensorTypes, quantized_values

Array = npt.NDArray[Any]

_FIRST_WITH_AXES = 13  # of DequantizeLinear
_DOMAIN = "onnxgraft.quantized"  # of our operators during the conversion of the operator set
# These pass INT8 values on unchanged.
_PASSING = frozenset((
    "Concat", "MaxPool", "Resize", "Reshape", "Transpose", "Slice", "Squeeze", "Unsqueeze", "Flatten", "Identity",
    "Split", "Gather", "Expand", "Tile", "DepthToSpace", "SpaceToDepth",
))  # fmt: skip


def lower_to_qdq(model: onnx.ModelProto, *, folder: str | PathLike[str] = "") -> onnx.ModelProto:
    """A copy of `model` in standard operators, with `QuantizeLinear` and `DequantizeLinear` around float operators.

    Args:
        model: The model; it is not changed. Its nodes must be in topological order. An operator set older than 13 is
            converted to 13 first, since older ones have no scales per channel.
        folder: The folder that the locations of external tensors start from.

    Returns:
        The copy. Weights and biases stay INT8 and INT32.

    Raises:
        EvaluationError: A part of the model has no such form: an offset that is not an INT8 value, sums without a
            `TesselDequant` at their end, an operator that computes with quantized values. `lower` has no such limits.
    """
    return _Lowering(_converted(model), fspath(folder)).run()


class _Lowering:
    def __init__(self, model: onnx.ModelProto, folder: str) -> None:
        self._model, self._graph, self._folder = model, model.graph, folder
        opsets = versions(model)
        check(self._graph, opsets)
        take_in_small_tensors(self._graph, folder)
        self._tensors = {tensor.name: tensor for tensor in reversed(self._graph.initializer)}
        self._types = TensorTypes(self._graph, opsets, lambda tensor: numpy_helper.from_array(self._array(tensor)))
        self._quantized = quantized_values.find(self._graph, opsets).tensors
        self._readers = Counter(name for node in self._graph.node for name in node.input)
        self._writers = {name: node for node in self._graph.node for name in node.output}
        self._quantizers: dict[str, tuple[float, int]] = {}  # tensor -> scale of QuantizeLinear, offset
        self._scales_after = self._ends()  # sum -> the scales that it is multiplied by
        self._floats: dict[str, onnx.NodeProto] = {}  # sum -> the node that computes it in floats
        self._write = NodeWriter(self._graph)

    def run(self) -> onnx.ModelProto:
        for node in self._graph.node:
            if node.op_type == "TesselQuant":
                self._quantize(node)
            elif node.op_type == "TesselDequant":
                self._dequantize(node)
            elif node.op_type in quantized_values.INTEGER_OPERATORS and node.output[0] in self._quantized:
                self._compute(node)
            elif any(name in self._floats for name in node.input):
                self._add(node)
            else:
                self._keep(node)
        self._install()
        return self._model

    def _array(self, tensor: TensorProto) -> Array:
        return values_of(tensor, self._folder)

    def _ends(self) -> dict[str, Array]:
        """Follows sums back from their `TesselDequant`, through added biases."""
        found: dict[str, Array] = {}
        for node in reversed(self._graph.node):
            if node.op_type == "TesselDequant":
                if len(node.input) != 2 or node.input[1] not in self._tensors:
                    raise EvaluationError(
                        f"{label(node)}: its second input must be an initializer that holds the scales"
                    )
                scales = unpack_scales(self._array(self._tensors[node.input[1]]))
                if not np.array_equal(found.setdefault(node.input[0], scales), scales):
                    raise EvaluationError(f"{label(node)}: its input is also dequantized by other scales")
            elif node.op_type == "Add" and node.output[0] in found:
                for name in node.input:
                    if name in self._quantized:
                        found[name] = found[node.output[0]]
        return found

    def _quantize(self, node: onnx.NodeProto) -> None:
        scale, offset = (quantize_parameter(node, name, default) for name, default in (("scale", 1.0), ("offset", 0.0)))
        if not scale > 0:
            raise EvaluationError(f"{label(node)}: its scale is {scale:g}, where QuantizeLinear needs a positive one")
        if offset != int(offset) or not -128 <= offset <= 127:
            raise EvaluationError(f"{label(node)}: its offset is {offset:g}, where QuantizeLinear needs a whole INT8")
        output = node.output[0]
        inverse = float(np.float32(1 / scale))
        self._quantizers[output] = inverse, int(offset)
        kind = self._types.get(node.input[0])
        data = node.input[0]
        if kind is not None and kind.element_type != TensorProto.FLOAT:
            data = self._write.inner("Cast", [data], output, to=TensorProto.FLOAT)
        self._write.node("QuantizeLinear", [data, *self._parameters(output, inverse, np.int8(offset))], output)

    def _parameters(self, stem: str, scales: Any, zero: np.int8 | np.int32) -> list[str]:
        """Constants for scales and zero point, of one shape."""
        values = np.asarray(scales, np.float32)
        points = np.full(values.shape, zero)
        return [self._write.constant(f"{stem}_scale", values), self._write.constant(f"{stem}_zero_point", points)]

    def _as_float(self, name: str, scales: Any, zero: np.int8 | np.int32, axis: int = 1) -> str:
        axes = {} if np.ndim(scales) == 0 else {"axis": axis}
        return self._write.inner("DequantizeLinear", [name, *self._parameters(name, scales, zero)], name, **axes)

    def _compute(self, node: onnx.NodeProto) -> None:
        """An integer operator, on floats."""
        scales = self._scales_after.get(node.output[0])
        if scales is None:
            raise EvaluationError(f"{label(node)}: its sums do not end in a TesselDequant")
        weight = self._tensors.get(node.input[1])
        if weight is None or weight.data_type != TensorProto.INT8 or node.input[0] not in self._quantized:
            raise EvaluationError(f"{label(node)}: only a quantized input and an INT8 weight have this form")
        factor = scales.reshape(()) if scales.size == 1 else scales
        step, offset = self._quantizers.get(node.input[0]) or (self._step(node.input[0]), 0)
        centre = offset if node.op_type == "Conv" else 0
        axis = _output_axis(node, len(weight.dims))
        if factor.ndim and (axis is None or weight.dims[axis] != factor.size):
            raise EvaluationError(f"{label(node)}: {factor.size} scales do not match the channels of its weight")
        inputs = [
            self._as_float(node.input[0], step, np.int8(centre)),
            self._as_float(node.input[1], (factor / step).astype(np.float32), np.int8(0), axis or 0),
        ]
        inputs += [self._bias(name, factor, 0) for name in node.input[2:] if name]
        self._emit(node, inputs)

    def _bias(self, name: str, factor: Array, axis: int) -> str:
        bias = self._tensors.get(name)
        if bias is None or bias.data_type != TensorProto.INT32:
            raise EvaluationError(f"'{name}' is added to sums of integers and is not an INT32 initializer")
        dims = tuple(bias.dims)
        if factor.ndim and dims != factor.shape:  # one value for all channels, or axes of length one around them
            values = self._array(bias).astype(np.float32) * factor
            return self._write.constant(f"{name}_as_float", values)
        return self._as_float(name, factor, np.int32(0), axis)

    def _add(self, node: onnx.NodeProto) -> None:
        """A bias that is added to sums."""
        sums = [name for name in node.input if name in self._floats]
        others = [name for name in node.input if name not in self._floats]
        scales = self._scales_after.get(node.output[0])
        if node.op_type != "Add" or len(sums) != 1 or scales is None:
            raise EvaluationError(f"{label(node)} computes with sums of integers: there is no such form for it")
        factor = scales.reshape(()) if scales.size == 1 else scales
        self._emit(node, [self._floats[sums[0]].output[0], *(self._bias(name, factor, 0) for name in others)])

    def _emit(self, node: onnx.NodeProto, inputs: list[str]) -> None:
        """The node on floats; it writes a new tensor until the dequantize node follows."""
        copy = onnx.NodeProto()
        copy.CopyFrom(node)
        copy.input[:] = inputs
        copy.output[:] = [self._write.fresh(f"{node.output[0]}_float")]
        self._write.nodes.append(copy)
        self._floats[node.output[0]] = copy

    def _dequantize(self, node: onnx.NodeProto) -> None:
        data, output = node.input[0], node.output[0]
        kind = self._types.get(output)
        wanted = TensorProto.FLOAT if kind is None else kind.element_type
        if data in self._floats:
            last = self._floats[data]
        else:
            scales = self._scales_after[data]
            self._as_float(data, scales.reshape(()) if scales.size == 1 else scales, np.int8(0))
            last = self._write.nodes[-1]
        if wanted != TensorProto.FLOAT:
            self._write.node("Cast", [last.output[0]], output, to=wanted)
        elif data in self._floats and self._readers[data] > 1:
            self._write.node("Identity", [last.output[0]], output)
        else:
            last.output[0] = output

    def _step(self, name: str) -> float:
        """The scale of a quantize node that a tensor comes from; 1 if there is none."""
        while name not in self._quantizers:
            writer = self._writers.get(name)
            before = [source for source in writer.input if source in self._quantized] if writer is not None else []
            if not before:
                return 1.0
            name = before[0]
        scale, _ = self._quantizers[name]
        return scale

    def _keep(self, node: onnx.NodeProto) -> None:
        if any(name in self._quantized for name in node.output) and node.op_type not in _PASSING:
            raise EvaluationError(f"{label(node)} computes with quantized values: there is no such form for it")
        copy = onnx.NodeProto()
        copy.CopyFrom(node)
        if node.op_type == "Resize":
            constants = {name: self._array(self._tensors[name]) for name in node.input[1:] if name in self._tensors}
            settle_resize(self._write, copy, constants, needs_empty=False)
        self._write.nodes.append(copy)

    def _install(self) -> None:
        graph = self._graph
        if lost := [value.name for value in graph.output if value.name in self._floats]:
            raise EvaluationError(f"the output '{lost[0]}' holds sums of integers: there is no such form for it")
        del graph.node[:]
        graph.node.extend(self._write.nodes)
        graph.initializer.extend(self._write.initializers)
        drop_unread(graph, self._tensors)
        for value in graph.output:
            kind = self._types.get(value.name)
            if kind is not None and (kind.dims is not None or value.name in self._quantized):
                value.CopyFrom(kind.declare(value.name))
        del graph.value_info[:]


def _output_axis(node: onnx.NodeProto, rank: int) -> int | None:
    """The axis of a weight that holds the channels of the result; None if it is not a single axis."""
    numbers = {entry.name: entry.i for entry in node.attribute}
    match node.op_type:
        case "Conv":
            return 0
        case "ConvTranspose":
            return 1 if numbers.get("group", 1) == 1 else None
        case "Gemm":
            return 0 if numbers.get("transB", 0) else 1
        case _:
            return 1 if rank == 2 else None


def _converted(model: onnx.ModelProto) -> onnx.ModelProto:
    """A copy in an operator set with scales per channel."""
    copy = onnx.ModelProto()
    copy.CopyFrom(model)
    version = versions(model).get("", 0)
    if version >= _FIRST_WITH_AXES:
        return copy
    for node in copy.graph.node:
        if node.op_type in OWN_OPERATORS:
            node.domain = _DOMAIN  # the converter takes operators of other domains as they are
    copy.opset_import.append(helper.make_opsetid(_DOMAIN, 1))
    try:
        converted = onnx.version_converter.convert_version(copy, _FIRST_WITH_AXES)
    except Exception as error:  # any error that a wrong model causes
        reason = " ".join(str(error).split())
        raise EvaluationError(f"operator set {version} cannot be converted to {_FIRST_WITH_AXES}: {reason}") from error
    for node in converted.graph.node:
        if node.domain == _DOMAIN:
            node.domain = ""
    kept = [entry for entry in converted.opset_import if entry.domain != _DOMAIN]
    del converted.opset_import[:]
    converted.opset_import.extend(kept)
    return converted
