"""The graph around an occurrence: which nodes write and read its tensors, and what is known of their shapes.

Made once per pattern, while its replacements stand in the graph; it holds the graph's objects, so it must not
outlive the pass.
"""

from __future__ import annotations

from collections.abc import Iterable

import onnx

from onnxgraft.engine.node_texts import tensor_text, value_text
from onnxgraft.engine.report import NodeText


class Shapes:
    """Types and shapes of a graph's tensors, put in words only when they are asked for."""

    def __init__(self, graph: onnx.GraphProto) -> None:
        self._values = {
            value.name: value for values in (graph.value_info, graph.output, graph.input) for value in values
        }
        self._initializers = graph.initializer
        self._tensors: dict[str, onnx.TensorProto] = {}
        self._count = 0

    def _add_new_tensors(self) -> None:
        """Takes in what callbacks appended since the last time."""
        count = len(self._initializers)
        for place in range(self._count, count):
            tensor = self._initializers[place]
            self._tensors[tensor.name] = tensor
        self._count = count

    def texts(self, names: Iterable[str]) -> dict[str, str]:
        """The known ones among the tensors of these names."""
        self._add_new_tensors()
        found = {}
        for name in names:
            if (tensor := self._tensors.get(name)) is not None:
                found[name] = tensor_text(tensor)
            elif (value := self._values.get(name)) is not None:
                found[name] = value_text(value)
        return found


class Neighbours:
    """Writers and readers of a graph's tensors."""

    def __init__(self, graph: onnx.GraphProto) -> None:
        self._nodes = list(graph.node)
        self._writers: dict[str, int] = {}
        self._readers: dict[str, list[int]] = {}
        for index, node in enumerate(self._nodes):
            self._writers.update(dict.fromkeys(node.output, index))
            for name in set(node.input):
                self._readers.setdefault(name, []).append(index)

    def of(self, before: Iterable[NodeText], after: Iterable[NodeText]) -> tuple[NodeText, ...]:
        """The nodes next to an occurrence that are not part of it, in graph order."""
        own = {node.index for node in after}
        written = {name for node in (*before, *after) for name in node.outputs}
        read = {name for node in (*before, *after) for name in node.inputs}
        found = {self._writers[name] for name in read - written if name in self._writers}
        found |= {index for name in written for index in self._readers.get(name, ())}
        return tuple(NodeText.of(self._nodes[index], index) for index in sorted(found - own))
