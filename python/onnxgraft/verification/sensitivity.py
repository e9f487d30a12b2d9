"""The float model with one operator quantized at a time, which shows the cost of each.

The nodes that compute a tensor in the quantized model, from tensors that the float model also has, replace the node
that computes it there.
"""

from __future__ import annotations

import math
import os
from collections.abc import Iterable, Iterator, Mapping, Sequence
from dataclasses import dataclass
from pathlib import Path
from typing import Any, Protocol

import numpy.typing as npt
import onnx
from onnx.external_data_helper import uses_external_data

from onnxgraft.evaluation.lowered_graph import versions
from onnxgraft.evaluation.operator_formulas import label
from onnxgraft.preparation import prepare
from onnxgraft.tensor_types import quantized_values
from onnxgraft.verification.accuracy import Sensitivity
from onnxgraft.verification.counterparts import is_counterpart, writers_of
from onnxgraft.verification.noise import Noise

Array = npt.NDArray[Any]

_SUFFIX = "__quantized_alone"


@dataclass(frozen=True)
class Hybrid:
    """The float model with one quantized operator.

    Attributes:
        name: That operator.
        tensor: Its output.
        model: The model; it shares nothing with the two models that it was made from.
        folder: The folder that the locations of its external tensors start from.
    """

    name: str
    tensor: str
    model: onnx.ModelProto
    folder: str


class Runner(Protocol):
    """Computes a model."""

    def run(self, feeds: Mapping[str, Array]) -> dict[str, Array]:
        """The outputs by name."""
        ...


def hybrids(before: onnx.ModelProto, after: onnx.ModelProto, folder_before: str, folder_after: str) -> Iterator[Hybrid]:
    """One for each common tensor that the model after dequantizes."""
    quantized = quantized_values.find(after.graph, versions(after)).tensors
    first, second = writers_of(before.graph), writers_of(after.graph)
    known = {name for name, node in first.items() if name in second and is_counterpart(node, second[name])} - quantized
    known |= {value.name for value in before.graph.input}
    join = _Join(before, after, folder_before, folder_after)
    for place, node in enumerate(before.graph.node):
        name = node.output[0] if node.output else ""
        if name not in known or second[name].op_type == node.op_type:
            continue
        nodes = _until(name, second, known)
        integers = [label(one) for one in nodes if one.op_type in quantized_values.INTEGER_OPERATORS]
        if integers and any(one.op_type == "TesselDequant" for one in nodes):
            yield Hybrid(" and ".join(integers), name, join.model(place, name, nodes), join.folder)


def sensitivity_of(
    hybrid: Hybrid, names: Sequence[str], exact: Runner, runner: Runner, feeds: Iterable[Mapping[str, Array]]
) -> Sensitivity:
    """Compares the hybrid's outputs with those of the float model."""
    noises = {name: Noise() for name in names}
    for values in feeds:
        expected, found = exact.run(values), runner.run(values)
        for name, noise in noises.items():
            noise.add(expected[name], found[name])
    least = min((noise.sqnr for noise in noises.values() if noise.elements), default=math.nan)
    return Sensitivity(hybrid.name, hybrid.tensor, least)


def _until(name: str, writers: Mapping[str, onnx.NodeProto], known: set[str]) -> list[onnx.NodeProto]:
    """The nodes that compute a tensor from known ones."""
    found: dict[int, onnx.NodeProto] = {}
    todo = [name]
    while todo:
        node = writers.get(todo.pop())
        if node is not None and id(node) not in found:
            found[id(node)] = node
            todo += [source for source in node.input if source not in known]
    return list(found.values())


class _Join:
    """Puts nodes of one model into a copy of the other."""

    def __init__(self, before: onnx.ModelProto, after: onnx.ModelProto, folder_before: str, folder_after: str) -> None:
        self._before = before
        self._folders = os.path.realpath(folder_before), os.path.realpath(folder_after)
        self.folder = os.path.commonpath(self._folders)
        self._tensors = {tensor.name: tensor for tensor in reversed(after.graph.initializer)}

    def model(self, place: int, name: str, nodes: Sequence[onnx.NodeProto]) -> onnx.ModelProto:
        """A copy in which `nodes` compute the tensor instead of the node at `place`."""
        result = onnx.ModelProto()
        result.CopyFrom(self._before)
        graph = result.graph
        for tensor in graph.initializer:
            self._move(tensor, self._folders[0])
        renamed = {output for node in nodes for output in node.output} - {name}
        constants = {source for node in nodes for source in node.input if source in self._tensors}
        for constant in constants:
            tensor = graph.initializer.add()
            tensor.CopyFrom(self._tensors[constant])
            tensor.name += _SUFFIX
            self._move(tensor, self._folders[1])
        del graph.node[place]
        for node in nodes:
            copy = graph.node.add()
            copy.CopyFrom(node)
            copy.name += _SUFFIX
            for field in (copy.input, copy.output):
                field[:] = [part + _SUFFIX if part in renamed or part in constants else part for part in field]
        prepare(result, ["sort_nodes"])
        return result

    def _move(self, tensor: onnx.TensorProto, folder: str) -> None:
        if uses_external_data(tensor):
            for entry in tensor.external_data:
                if entry.key == "location":
                    entry.value = os.path.relpath(Path(folder) / entry.value, self.folder)
