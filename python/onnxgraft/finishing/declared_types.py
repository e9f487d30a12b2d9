"""Tensors that a run made or changed -> with their element type and shape in `value_info`, as far as both are known.

Entries of removed weights are removed too: some exporters also list initializers in `value_info`.
"""

from __future__ import annotations

from onnxgraft.catalogue import Transformation
from onnxgraft.following import DoneStep, Host
from onnxgraft.preparation.workpiece import remove_at


class DeclareTypes:
    """Runs after every step.

    A tensor of the caller's without an entry gets none, unless it holds quantized values now.
    """

    def __init__(self, host: Host) -> None:
        graph = host.graph
        declared = {value.name for value in graph.value_info}
        written = {name for node in graph.node for name in node.output}
        self._undeclared = written - declared  # what the caller did not declare
        self._initializers = {tensor.name for tensor in graph.initializer}

    def wants(self, _transformation: Transformation) -> bool:
        """It looks at the graph only."""
        return False

    def follow(self, step: DoneStep) -> None:
        """Adds, corrects and removes entries."""
        graph = step.graph
        types = step.tensor_types()
        quantized = types.quantized
        entries = {value.name: value for value in graph.value_info}
        known = {value.name for values in (graph.input, graph.output) for value in values}
        known.update(tensor.name for tensor in graph.initializer)
        # Declared tensors, and those that the caller left undeclared, are examined only if they are quantized now.
        settled = known | self._undeclared | entries.keys()
        for name in (name for node in graph.node for name in node.output):
            if name not in quantized and name in settled:
                continue
            kind = types.get(name)
            if kind is None or name in known:
                continue
            known.add(name)
            if name in entries:
                entries[name].type.tensor_type.elem_type = kind.element_type
            elif kind.dims is not None:
                graph.value_info.append(kind.declare(name))
        stale = self._initializers & (entries.keys() - known)
        if stale:
            stale -= {name for node in graph.node for name in node.output if types.get(name) is not None}
            remove_at(graph.value_info, [index for index, value in enumerate(graph.value_info) if value.name in stale])
