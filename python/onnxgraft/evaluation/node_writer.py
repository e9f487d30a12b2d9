"""Builds a node list with names that are new to its graph."""

from __future__ import annotations

from collections.abc import Iterable
from typing import Any

import numpy.typing as npt
import onnx
from onnx import helper, numpy_helper

from onnxgraft.graph.names import all_names


class NodeWriter:
    """Collects nodes and initializers. New tensors are named after the tensor that they serve."""

    def __init__(self, graph: onnx.GraphProto) -> None:
        self.nodes: list[onnx.NodeProto] = []
        self.initializers: list[onnx.TensorProto] = []
        self._taken = all_names(graph)

    def fresh(self, stem: str) -> str:
        """A name that the graph does not contain yet."""
        name, number = stem, 0
        while name in self._taken:
            number += 1
            name = f"{stem}_{number}"
        self._taken.add(name)
        return name

    def constant(self, stem: str, values: npt.NDArray[Any]) -> str:
        """Adds an initializer; returns its name."""
        name = self.fresh(stem)
        self.initializers.append(numpy_helper.from_array(values, name))
        return name

    def node(self, op: str, inputs: Iterable[str], output: str, **attributes: Any) -> str:
        """Adds a node that writes `output`; returns that name."""
        self.nodes.append(helper.make_node(op, list(inputs), [output], **attributes))
        return output

    def inner(self, op: str, inputs: Iterable[str], stem: str, **attributes: Any) -> str:
        """Adds a node that writes a new tensor; returns its name."""
        return self.node(op, inputs, self.fresh(f"{stem}_{op.lower()}"), **attributes)
