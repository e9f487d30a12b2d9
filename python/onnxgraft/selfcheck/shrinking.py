"""Makes a failing graph smaller by leaving nodes out, as long as it still fails."""

from __future__ import annotations

from collections.abc import Callable, Sequence

from onnx import GraphProto, TensorProto, helper

from onnxgraft.graph.names import reads, sources

_MOST_TRIALS = 200


def shrunk(graph: GraphProto, fails: Callable[[GraphProto], bool]) -> GraphProto:
    """The smallest graph found that `fails`. The outputs of a removed node become graph inputs."""
    trials = 0
    size = max(1, len(graph.node) // 2)
    while True:
        start, smaller = 0, False
        while start < len(graph.node):
            trials += 1
            kept = [k for k in range(len(graph.node)) if not start <= k < start + size]
            trial = _with(graph, kept)
            if kept and trials <= _MOST_TRIALS and fails(trial):
                graph, smaller = trial, True
            else:
                start += size
        if size == 1 and not smaller:
            return graph
        size = max(1, size // 2)


def _with(graph: GraphProto, kept: Sequence[int]) -> GraphProto:
    """The graph of those nodes, with only what they need."""
    result = GraphProto()
    result.CopyFrom(graph)
    del result.node[:], result.input[:], result.output[:], result.initializer[:], result.value_info[:]
    result.node.extend(graph.node[k] for k in kept)
    read = {name for node in result.node for name in reads(node)}
    written = {name for node in result.node for name in node.output}
    result.initializer.extend(tensor for tensor in graph.initializer if tensor.name in read)
    result.input.extend(value for value in graph.input if value.name in read)
    result.output.extend(value for value in graph.output if value.name in written)
    result.value_info.extend(value for value in graph.value_info if value.name in read | written)
    lost = {name for node in graph.node for name in node.output if name} & read - written - sources(result)
    result.input.extend(helper.make_tensor_value_info(name, TensorProto.FLOAT, None) for name in sorted(lost))
    ends = {value.name for value in result.output}
    free = [name for node in result.node for name in node.output if name and name not in read | ends]
    result.output.extend(helper.make_tensor_value_info(name, TensorProto.FLOAT, None) for name in free)
    return result
