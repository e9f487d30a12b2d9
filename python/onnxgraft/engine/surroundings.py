"""The graph around an occurrence: which nodes write and read its tensors, and what is known of their shapes.

Made once per pattern, while its replacements stand in the graph; it holds the graph's objects, so it must not
outlive the pass.
"""

from __future__ import annotations

from collections.abc import Iterable

import onnx

from onnxgraft.report.node_texts import TensorKind, value_text
from onnxgraft.report.records import NodeText


class Shapes:
    """Types and shapes of a graph's tensors, which are known from value_info, inputs, outputs and initializers."""

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

    def kinds(self, names: Iterable[str]) -> dict[str, TensorKind]:
        """The known ones among the tensors of these names."""
        self._add_new_tensors()
        tensors, values = self._tensors, self._values
        found: dict[str, TensorKind] = {}
        for name in names:
            if name in tensors:
                found[name] = (tensors[name].data_type, tensors[name].dims[:])
            elif name in values:
                found[name] = value_text(values[name])
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

    def of(self, own: set[int], tensors: Iterable[str]) -> tuple[NodeText, ...]:
        """The nodes that write or read these tensors, but for those at the indices `own`, in graph order."""
        found: set[int] = set()
        for name in tensors:
            found.update(self._readers.get(name, ()))
            if name in self._writers:
                found.add(self._writers[name])
        return tuple([NodeText.of(self._nodes[index], index) for index in sorted(found - own)])
