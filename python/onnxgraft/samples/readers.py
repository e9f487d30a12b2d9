"""The readers of a graph input, through operators that pass its values on: they decide which values are valid."""

from __future__ import annotations

from collections.abc import Iterator
from typing import Any

import onnx
from onnx import helper

from onnxgraft.graph.surroundings import Surroundings

# These pass on the elements of their first input.
_PASSING = {"Cast", "Identity", "Reshape", "Flatten", "Unsqueeze", "Squeeze", "Transpose", "Slice", "Expand", "Dropout"}
# These also keep the shape.
_SHAPE_KEEPING = {"Cast", "Identity", "TesselQuant", "Dropout"}


class Readers:
    """The nodes of a graph by the tensors that they read, and the shapes of its constants."""

    def __init__(self, graph: onnx.GraphProto) -> None:
        self._around = Surroundings(graph)
        self._dims: dict[str, tuple[int, ...]] = {tensor.name: tuple(tensor.dims) for tensor in graph.initializer}
        for node in graph.node:
            if node.op_type == "Constant" and node.attribute and node.attribute[0].name == "value":
                self._dims[node.output[0]] = tuple(node.attribute[0].t.dims)
            elif node.op_type in {"Identity", "Transpose"} and node.input and node.input[0] in self._dims:
                dims = self._dims[node.input[0]]
                order = _attribute(node, "perm", range(len(dims))[:: -1 if node.op_type == "Transpose" else 1])
                self._dims[node.output[0]] = tuple(dims[axis] for axis in order)

    def number_of_rows(self, name: str) -> int | None:
        """The size of the smallest table in which the values of a tensor are looked up; None if there is none."""
        sizes = []
        for tensor, node in self._follow(name, _PASSING):
            if node.op_type in {"Gather", "GatherElements"} and len(node.input) == 2 and node.input[1] == tensor:
                dims, axis = self._dims.get(node.input[0]), int(_attribute(node, "axis", 0))
                if dims and -len(dims) <= axis < len(dims):
                    sizes.append(dims[axis])
        return min(sizes, default=None)

    def needed_size(self, name: str, axis: int, rank: int) -> int | None:
        """The size that a weight requires of an axis of a tensor; None if no weight does."""
        for tensor, node in self._follow(name, _SHAPE_KEEPING):
            if len(node.input) < 2 or node.input[0] != tensor:
                continue
            weight = self._dims.get(node.input[1], ())
            if node.op_type == "Conv" and axis == 1 and len(weight) > 1:
                return weight[1] * int(_attribute(node, "group", 1))
            if node.op_type == "MatMul" and axis == rank - 1 and weight:
                return weight[-2] if len(weight) > 1 else weight[0]
            if node.op_type == "Gemm" and axis == 1 and len(weight) == 2 and not _attribute(node, "transA", 0):
                return weight[1 if _attribute(node, "transB", 0) else 0]
        return None

    def _follow(self, name: str, passing: set[str]) -> Iterator[tuple[str, onnx.NodeProto]]:
        """Every tensor with the same elements, with each node that reads it."""
        todo, seen = [name], {name}
        while todo:
            tensor = todo.pop()
            for node in (self._around.nodes[index] for index in self._around.readers(tensor)):
                yield tensor, node
                if node.op_type in passing and node.input[0] == tensor and node.output[0] not in seen:
                    seen.add(node.output[0])
                    todo.append(node.output[0])


def _attribute(node: onnx.NodeProto, name: str, default: Any) -> Any:
    return next((helper.get_attribute_value(entry) for entry in node.attribute if entry.name == name), default)
