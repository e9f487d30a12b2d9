"""Builds a node list with names that are new to the graph it belongs to."""

from __future__ import annotations

from collections.abc import Iterable
from typing import Any

import numpy.typing as npt
import onnx
from onnx import helper, numpy_helper


class NodeWriter:
    """Collects nodes and initializers; tensors that it invents are named after the tensor that they serve."""

    def __init__(self, graph: onnx.GraphProto) -> None:
        self.nodes: list[onnx.NodeProto] = []
        self.initializers: list[onnx.TensorProto] = []
        self._taken = set(_names(graph))

    def fresh(self, stem: str) -> str:
        """A name that nothing in the graph has yet."""
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


def _names(graph: onnx.GraphProto) -> Iterable[str]:
    """All tensor names, nested bodies included: a new name must not be hidden by one of theirs."""
    todo = [graph]
    while todo:
        current = todo.pop()
        for field in (current.input, current.output, current.value_info):
            yield from (entry.name for entry in field)
        yield from (tensor.name for tensor in current.initializer)
        yield from (sparse.values.name for sparse in current.sparse_initializer)
        for node in current.node:
            yield from node.input
            yield from node.output
            todo += bodies(node)


def bodies(node: onnx.NodeProto) -> list[onnx.GraphProto]:
    """The nested graphs of a node."""
    found = []
    for attribute in node.attribute:
        if attribute.type == onnx.AttributeProto.GRAPH:
            found.append(attribute.g)
        found += attribute.graphs
    return found
