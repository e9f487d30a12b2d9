"""`read_quantized`: converts a model with explicit quantization to a float graph, its ranges and INT8 weights.

The float counterpart of a quantized tensor keeps the name from before its quantization. A node of integers in between
(MaxPool, Reshape) computes on floats afterwards.
"""

from __future__ import annotations

import logging
import os
from collections.abc import Callable
from dataclasses import dataclass
from typing import Any

import numpy as np
import numpy.typing as npt
import onnx
from onnx import helper, numpy_helper

from onnxgraft import preparation
from onnxgraft.calibration import Calibration, Range, WeightNumbers, model_fingerprint
from onnxgraft.errors import CalibrationError
from onnxgraft.graph.names import all_names, body_reads
from onnxgraft.graph.tensor_values import read_values
from onnxgraft.quantized_models.non_negative import NonNegative
from onnxgraft.quantized_models.operators import DEQUANTIZE, QUANTIZE, is_quantizing, written_out

Array = npt.NDArray[Any]

_log = logging.getLogger(__name__)
METHOD = "from QDQ"
# They pass quantized values on: the output has the scale of the input.
_PASSING = {
    *("Concat", "DepthToSpace", "Expand", "Flatten", "Gather", "Identity", "MaxPool", "Reshape", "Resize", "Slice"),
    *("SpaceToDepth", "Split", "Squeeze", "Tile", "Transpose", "Unsqueeze"),
}


@dataclass(frozen=True)
class _Parameters:
    scale: Array
    zero: Array
    axis: int

    def equals(self, other: _Parameters) -> bool:
        return np.array_equal(self.scale, other.scale) and np.array_equal(self.zero, other.zero)

    def range(self) -> Range:
        """The range that one scale can express."""
        limits = np.iinfo(self.zero.dtype)
        scale, zero = float(self.scale.reshape(-1)[0]), int(self.zero.reshape(-1)[0])
        return Range((limits.min - zero) * scale, (limits.max - zero) * scale)


def is_quantized(model: onnx.ModelProto) -> bool:
    """Whether the graph has nodes that express quantization by another tool."""
    return any(is_quantizing(node) for node in model.graph.node)


def read_quantized(
    model: onnx.ModelProto, folder: str | os.PathLike[str] | None = None
) -> tuple[onnx.ModelProto, Calibration]:
    """Reads a quantized model.

    A pair of quantize and dequantize nodes at an activation becomes a range. If the range starts exactly at zero and
    the tensor could be negative otherwise, it becomes a Clip as well, since it replaces a Relu that was dropped.
    Weights and biases become float initializers with the values that they represent.

    Args:
        model: The quantized model; it is not changed.
        folder: The folder that the locations of external tensors start from; None is the current one.

    Returns:
        The float model, not prepared, and its calibration: `samples` is 0, `method` "from QDQ".

    Raises:
        CalibrationError: Nothing is quantized, or scales are computed or differ where they must be equal; the message
            names the node.
    """
    place = os.fspath(folder) if folder is not None else "."
    copy = onnx.ModelProto()
    copy.CopyFrom(model)
    preparation.prepare(copy, ["sort_nodes", "make_initializers"], folder=folder)
    if not is_quantized(copy):
        raise CalibrationError(
            "the model is not quantized: it has no QuantizeLinear, DequantizeLinear or QLinear nodes"
        )
    reader = _Reader(copy, place)
    reader.read()
    fingerprint = model_fingerprint(copy, folder)
    found = Calibration(reader.ranges, METHOD, 0, fingerprint, data="the quantized model", weights=reader.weights)
    return copy, found


class _Reader:
    def __init__(self, model: onnx.ModelProto, folder: str) -> None:
        self.graph = model.graph
        self.ranges: dict[str, Range] = {}
        self.weights: dict[str, WeightNumbers] = {}
        self._folder = folder
        self._fresh = _fresh_names(self.graph)
        self._constants = {tensor.name: tensor for tensor in self.graph.initializer}
        self._values: dict[str, Array] = {}
        # quantized tensor -> the float tensor that it represents, and how
        self._floats: dict[str, tuple[str, _Parameters]] = {}
        self._alias: dict[str, str] = {}
        self._clips: dict[tuple[str, Range], str] = {}
        self._nodes: list[onnx.NodeProto] = []
        self._left_over: list[onnx.NodeProto] = []
        self._non_negative = NonNegative(self._constants, self._value)

    def read(self) -> None:
        """Rewrites the graph in place."""
        for node in list(self.graph.node):
            for part in written_out(node, self._fresh) or [node]:
                self._take(part)
        self._give_outputs_their_names()
        kept_names = {name for node in self._nodes for name in node.input} | {value.name for value in self.graph.output}
        nodes = [node for node in self._nodes if node not in self._left_over or not kept_names.isdisjoint(node.output)]
        del self.graph.node[:], self.graph.value_info[:]
        self.graph.node.extend(nodes)
        used = {name for node in nodes for name in node.input} | {value.name for value in self.graph.output}
        used |= body_reads(self.graph)
        kept = [tensor for tensor in self._constants.values() if tensor.name in used]
        inputs = [value for value in self.graph.input if value.name in used or value.name not in self._constants]
        for place, entries in ((self.graph.initializer, kept), (self.graph.input, inputs)):
            copies = [type(entry).FromString(entry.SerializeToString()) for entry in entries]
            del place[:]
            place.extend(copies)  # type: ignore[arg-type]
        written = {name for node in nodes for name in node.output} | {value.name for value in self.graph.input}
        self.ranges = {name: found for name, found in self.ranges.items() if name in written}
        self.weights = {name: found for name, found in self.weights.items() if name in used}

    def _take(self, node: onnx.NodeProto) -> None:
        if node.op_type == QUANTIZE and self._quantize(node):
            return
        if node.op_type == DEQUANTIZE and self._dequantize(node):
            return
        if node.op_type == "Mul" and all(name in self._constants for name in node.input):  # scales of a bias
            self._add(np.asarray(self._value(node.input[0]) * self._value(node.input[1])), node.output[0])
            return
        copy = onnx.NodeProto()
        copy.CopyFrom(node)
        quantized = [name for name in node.input if name in self._floats]
        if quantized:
            self._compute_on_floats(copy, quantized)
        for position, name in enumerate(copy.input):
            copy.input[position] = self._alias.get(name, name)
        self._nodes.append(copy)
        self._non_negative.add(copy)

    def _compute_on_floats(self, node: onnx.NodeProto, quantized: list[str]) -> None:
        """A node of integers between a quantize and a dequantize node."""
        parameters = self._floats[quantized[0]][1]
        equal = all(self._floats[name][1].equals(parameters) for name in quantized)
        if node.op_type not in _PASSING or not equal:
            raise CalibrationError(
                f"{_label(node)} reads the quantized tensor '{quantized[0]}': only operators that pass values on, "
                "from tensors of one scale and zero point, can be read as operators of floats"
            )
        for position, name in enumerate(node.input):
            if name in self._floats:
                node.input[position] = self._floats[name][0]
        for position, name in enumerate(node.output):
            floats = self._fresh(name.removesuffix("_quantized"))
            self._floats[name] = floats, parameters
            self.ranges[floats] = parameters.range()
            node.output[position] = floats

    def _quantize(self, node: onnx.NodeProto) -> bool:
        source = self._alias.get(node.input[0], node.input[0])
        parameters = self._parameters(node, np.uint8)
        if source in self._constants:
            # A weight that is quantized in the graph, as training leaves it.
            limits = np.iinfo(parameters.zero.dtype)
            scale, zero = _spread(parameters, self._value(source).ndim)
            values = np.rint(self._value(source) / scale) + zero
            self._add(np.clip(values, limits.min, limits.max).astype(parameters.zero.dtype), node.output[0])
            return True
        if parameters.scale.size != 1 or parameters.zero.dtype.kind not in "iu":
            return False
        found = parameters.range()
        if found.low == 0 and source not in self._inputs() and not self._non_negative(source):
            source = self._clip(source, found)
        known = self.ranges.get(source)
        self.ranges[source] = found if known is None else known.union(found)
        self._floats[node.output[0]] = source, parameters
        return True

    def _dequantize(self, node: onnx.NodeProto) -> bool:
        name, output = node.input[0], node.output[0]
        if name in self._floats:
            source, parameters = self._floats[name]
            if not parameters.equals(self._parameters(node, parameters.zero.dtype)):
                raise CalibrationError(
                    f"{_label(node)} has another scale or zero point than the quantize node of '{name}'"
                )
            self._alias[output] = source
            return True
        if name not in self._constants:
            return self._dequantize_before(node)
        values = self._value(name)
        parameters = self._parameters(node, values.dtype)
        scale, zero = _spread(parameters, values.ndim)
        numbers = values.astype(np.int64) - zero
        result = self._fresh(name.removesuffix("_quantized"))
        floats = (numbers * scale.astype(np.float64)).astype(parameters.scale.dtype)
        self._add(floats, result)
        self._alias[output] = result
        if values.dtype != np.int32 and numbers.size and numbers.min() >= -128 and numbers.max() <= 127:
            axis = None if parameters.scale.size == 1 else parameters.axis % values.ndim
            scales = parameters.scale.reshape(-1).astype(np.float32)
            self.weights[result] = WeightNumbers(numbers.astype(np.int8), scales, axis)
        return True

    def _dequantize_before(self, node: onnx.NodeProto) -> bool:
        """A node that selects from a quantized constant (rows of a table) selects from the float one."""
        writer = next((other for other in self._nodes if node.input[0] in other.output), None)
        if writer is None or writer.op_type not in _PASSING or writer.input[0] not in self._constants:
            return False
        if self._value(node.input[1]).size != 1:
            return False
        before, after = onnx.NodeProto(), onnx.NodeProto()
        before.CopyFrom(node)
        before.input[0], before.output[0] = writer.input[0], self._fresh(f"{writer.input[0]}_float")
        after.CopyFrom(writer)
        after.output[0] = self._fresh(node.input[0].removesuffix("_quantized"))
        after.name = self._fresh(f"{writer.name}_float")
        self._dequantize(before)
        after.input[0] = self._alias[before.output[0]]
        self._nodes.append(after)
        self._left_over.append(writer)
        self._alias[node.output[0]] = after.output[0]
        return True

    def _clip(self, source: str, found: Range) -> str:
        """The tensor of a Clip to this range."""
        if (source, found) not in self._clips:
            bounds = [self._fresh(f"{source}_{end}") for end in ("low", "high")]
            self._add(np.float32(found.low), bounds[0])
            self._add(np.float32(found.high), bounds[1])
            result = self._fresh(f"{source}_clipped")
            clip = helper.make_node("Clip", [source, *bounds], [result], self._fresh(f"{source}_Clip"))
            self._nodes.append(clip)
            self._non_negative.add(clip)
            self._clips[source, found] = result
        return self._clips[source, found]

    def _parameters(self, node: onnx.NodeProto, zero_type: Any) -> _Parameters:
        for name in node.input[1:]:
            if name and name not in self._constants:
                raise CalibrationError(f"{_label(node)} has a computed scale or zero point, '{name}'")
        attributes = {attribute.name: helper.get_attribute_value(attribute) for attribute in node.attribute}
        if attributes.get("block_size"):
            raise CalibrationError(f"{_label(node)} has scales for blocks, which cannot be read")
        scale = np.asarray(self._value(node.input[1]))
        has_zero = len(node.input) > 2 and node.input[2]
        zero = self._value(node.input[2]) if has_zero else np.zeros(scale.shape, zero_type)
        return _Parameters(scale, np.asarray(zero), attributes.get("axis", 1))

    def _value(self, name: str) -> Array:
        if name not in self._values:
            values = read_values(self._constants[name], self._folder)
            if values is None:
                raise CalibrationError(f"the values of '{name}' cannot be read")
            self._values[name] = values
        return self._values[name]

    def _add(self, values: Any, name: str) -> None:
        self._constants[name] = numpy_helper.from_array(np.asarray(values), name)
        self._values[name] = np.asarray(values)

    def _inputs(self) -> set[str]:
        return {value.name for value in self.graph.input}

    def _give_outputs_their_names(self) -> None:
        """The nodes that compute dequantized graph outputs write them directly."""
        fixed = self._inputs() | self._constants.keys() | {value.name for value in self.graph.output}
        for value in self.graph.output:
            source = self._alias.get(value.name)
            if source is None:
                if value.name in self._floats:
                    raise CalibrationError(f"the output '{value.name}' is quantized: a DequantizeLinear must write it")
                continue
            if source in fixed:
                self._nodes.append(helper.make_node("Identity", [source], [value.name], self._fresh(value.name)))
                continue
            for node in self._nodes:
                for names in (node.output, node.input):
                    for position, name in enumerate(names):
                        if name == source:
                            names[position] = value.name
            if source in self.ranges:
                self.ranges[value.name] = self.ranges.pop(source)
            fixed.add(source)


def _spread(parameters: _Parameters, rank: int) -> tuple[Array, Array]:
    """Scale and zero point in a shape that broadcasts with a tensor of this rank."""
    shape = [1] * rank
    if parameters.scale.size != 1:
        shape[parameters.axis] = -1
    return parameters.scale.reshape(shape), parameters.zero.astype(np.int64).reshape(shape)


def _fresh_names(graph: onnx.GraphProto) -> Callable[[str], str]:
    taken = set(all_names(graph))

    def fresh(wanted: str) -> str:
        name, number = wanted, 1
        while name in taken:
            name, number = f"{wanted}_{number}", number + 1
        taken.add(name)
        return name

    return fresh


def _label(node: onnx.NodeProto) -> str:
    return f"{node.op_type} '{node.name}'" if node.name else f"{node.op_type} that writes '{node.output[0]}'"
