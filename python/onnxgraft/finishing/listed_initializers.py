"""Files of IR version 3 and older list every initializer among the graph's inputs, so new ones are listed too."""

from __future__ import annotations

from onnx import helper

from onnxgraft.catalogue import Transformation
from onnxgraft.following import DoneStep, Host


class ListInitializers:
    """Lists the initializers that a step added, if the format requires it.

    A graph without its model does not state its format. One that lists all its initializers is treated as an old one.
    """

    def __init__(self, host: Host) -> None:
        self._is_needed = host.workpiece().lists_initializers

    def wants(self, _transformation: Transformation) -> bool:
        """It looks at the graph only."""
        return False

    def follow(self, step: DoneStep) -> None:
        """Adds the missing entries."""
        if not self._is_needed:
            return
        graph = step.graph
        listed = {value.name for value in graph.input}
        for tensor in graph.initializer:
            if tensor.name not in listed:
                listed.add(tensor.name)
                value = helper.make_tensor_value_info(tensor.name, tensor.data_type, list(tensor.dims))
                graph.input.append(value)
