"""The known shapes of a graph's tensors.

Made once per pattern, while its replacements are in the graph. It holds the graph's objects, so it must not outlive the
pass.
"""

from __future__ import annotations

from collections.abc import Iterable

import onnx

from onnxgraft.report.node_texts import TensorKind


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
        """Adds entries that callbacks appended since the last time."""
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
                found[name] = values[name].type.SerializeToString()
        return found
