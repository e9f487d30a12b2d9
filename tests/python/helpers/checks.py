"""What must not come of a rewrite: a second writer of a tensor, a tensor that nothing provides any more."""

from collections import Counter

from onnx import GraphProto

from onnxgraft.selfcheck.names import reads, sources


def writers(graph: GraphProto) -> Counter[str]:
    return Counter(name for node in graph.node for name in node.output if name)


def dangling(graph: GraphProto) -> set[str]:
    """Names that are read, or handed out, and have no writer."""
    wanted = {value.name for value in graph.output}.union(*(reads(node) for node in graph.node))
    return wanted - sources(graph) - writers(graph).keys()
