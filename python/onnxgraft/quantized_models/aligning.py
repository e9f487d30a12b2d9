"""`calibration_for`: the numbers of a quantized model, under the names of the float model that it was made from."""

from __future__ import annotations

import os
from collections.abc import Iterator

import numpy as np
import onnx

from onnxgraft import preparation
from onnxgraft.calibration import Calibration, Range, WeightNumbers, model_fingerprint
from onnxgraft.errors import CalibrationError
from onnxgraft.graph.tensor_values import read_values
from onnxgraft.quantized_models.reading import METHOD, read_quantized

_CLIPPING = {"Clip", "Relu"}
_FLOATS = {onnx.TensorProto.FLOAT, onnx.TensorProto.FLOAT16, onnx.TensorProto.DOUBLE}


def calibration_for(
    float_model: onnx.ModelProto,
    quantized: onnx.ModelProto,
    *,
    folder: str | os.PathLike[str] | None = None,
    quantized_folder: str | os.PathLike[str] | None = None,
) -> Calibration:
    """Finds for each tensor of the float model the range that the quantized one has for it.

    Both models are followed from the inputs on: nodes with the same operator on corresponding tensors correspond,
    whatever their names. A Relu or Clip that only the float model has is skipped, and gets the range of its
    counterpart.

    Args:
        float_model: The float model; it is not changed.
        quantized: The quantized model made from it; it is not changed.
        folder: Where the external data of `float_model` is; None is the current folder.
        quantized_folder: Where that of `quantized` is.

    Raises:
        CalibrationError: `quantized` is not quantized, or the two models have too little in common.
    """
    floats, found = read_quantized(quantized, quantized_folder)
    preparation.prepare(floats, folder=quantized_folder)
    prepared = onnx.ModelProto()
    prepared.CopyFrom(float_model)
    preparation.prepare(prepared, folder=folder)
    folders = [os.fspath(place) if place is not None else "." for place in (quantized_folder, folder)]
    pairs = _Pairs(floats.graph, prepared.graph, (folders[0], folders[1]))
    ranges: dict[str, Range] = {}
    for name, known in found.ranges.items():
        for target in pairs.tensors.get(name, ()):
            ranges[target] = known.union(ranges[target]) if target in ranges else known
    constants = {tensor.name: tuple(tensor.dims) for tensor in prepared.graph.initializer}
    weights: dict[str, WeightNumbers] = {}
    for name, numbers in found.weights.items():
        for target in pairs.tensors.get(name, ()):
            if constants.get(target) == numbers.values.shape:
                weights[target] = numbers
    if len(ranges) * 2 < len(found.ranges):
        raise CalibrationError(
            f"the quantized model does not belong to this float model: only {len(ranges)} of its {len(found.ranges)} "
            "ranges belong to a tensor"
        )
    fingerprints = model_fingerprint(float_model, folder), model_fingerprint(prepared, folder)
    return Calibration(ranges, METHOD, 0, *fingerprints, data=found.data, weights=weights)


class _Pairs:
    """The tensors of `right` that correspond to each tensor of `left`, initializers included."""

    def __init__(self, left: onnx.GraphProto, right: onnx.GraphProto, folders: tuple[str, str]) -> None:
        self.tensors: dict[str, set[str]] = {}
        self._folders = folders
        self._constants = [{tensor.name: tensor for tensor in graph.initializer} for graph in (left, right)]
        self._readers: dict[str, list[onnx.NodeProto]] = {}
        for node in right.node:
            for name in dict.fromkeys(node.input):
                self._readers.setdefault(name, []).append(node)
        self._taken: set[str] = set()  # nodes of `right`, by their first output
        inputs = [
            [value.name for value in graph.input if value.name not in constants]
            for graph, constants in zip((left, right), self._constants, strict=True)
        ]
        for first, second in zip(*inputs, strict=False):
            self.tensors[first] = {second}
        for node in left.node:
            self._follow(node)

    def _follow(self, node: onnx.NodeProto) -> None:
        reads = [name for name in node.input if name in self.tensors]
        if not reads:
            return
        found = min(self._candidates(node, reads[0]), key=lambda other: self._distance(node, other), default=None)
        if found is None:
            if node.op_type in _CLIPPING:  # the other model saturates there itself
                self.tensors[node.output[0]] = self.tensors[node.input[0]]
            return
        self._taken.add(found.output[0])
        for left, right in [*zip(node.input, found.input, strict=False), *zip(node.output, found.output, strict=False)]:
            if left and right:
                self.tensors.setdefault(left, set()).add(right)

    def _candidates(self, node: onnx.NodeProto, name: str) -> Iterator[onnx.NodeProto]:
        """Nodes of `right` that may be the same, each once."""
        kinds = _CLIPPING if node.op_type in _CLIPPING else {node.op_type}
        seen: set[str] = set()
        for tensor in sorted(self._with_clipped(self.tensors[name])):
            for other in self._readers.get(tensor, ()):
                if other.op_type in kinds and other.output[0] not in self._taken | seen and self._agree(node, other):
                    seen.add(other.output[0])
                    yield other

    def _with_clipped(self, names: set[str]) -> set[str]:
        """The tensors, and those that only `right` computes from them by a Relu or Clip."""
        after = {node.output[0] for name in names for node in self._readers.get(name, ()) if node.op_type in _CLIPPING}
        return names | (after - self._taken)

    def _agree(self, node: onnx.NodeProto, other: onnx.NodeProto) -> bool:
        if node.op_type in _CLIPPING:
            return other.input[0] in self.tensors[node.input[0]]
        if len(node.input) != len(other.input) or len(node.output) != len(other.output):
            return False
        for left, right in zip(node.input, other.input, strict=True):
            constants = [table.get(name) for table, name in zip(self._constants, (left, right), strict=True)]
            if left in self.tensors and constants[0] is None:
                if right not in self._with_clipped(self.tensors[left]):
                    return False
            elif constants[0] is not None and (constants[1] is None or constants[0].dims != constants[1].dims):
                return False
        return True

    def _distance(self, node: onnx.NodeProto, other: onnx.NodeProto) -> tuple[float, bool]:
        """How different two candidate nodes are: by their weights, then by name."""
        same = node.name.removesuffix("_quant") == other.name or node.output[0] == other.output[0]
        total = 0.0
        for left, right in zip(node.input, other.input, strict=False):
            first, second = self._constants[0].get(left), self._constants[1].get(right)
            if first is not None and second is not None and first.data_type in _FLOATS:
                values, others = read_values(first, self._folders[0]), read_values(second, self._folders[1])
                if values is not None and others is not None:
                    total += float(np.abs(values.astype(np.float64) - others).sum())
        return (total, not same)
