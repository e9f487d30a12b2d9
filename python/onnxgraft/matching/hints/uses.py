"""Hints about other readers of a tensor that the replacement would remove, and about missing readers."""

from __future__ import annotations

from onnxgraft.matching.hints.miss import Miss


def two_writers(miss: Miss) -> str | None:
    """The graph is not valid."""
    return f"two nodes write '{miss.tensor}': the model is not valid ONNX"


def graph_output(miss: Miss) -> str | None:
    """Outputs of the graph stay."""
    return f"tensor '{miss.tensor}' is a graph output, and the replacement would no longer compute it"


def read_by_body(miss: Miss) -> str | None:
    """So do tensors that nested graphs read."""
    index = miss.around.body_reader(miss.tensor)
    return None if index is None else f"a nested graph of {miss.text(index)} reads '{miss.tensor}'"


def read_elsewhere(miss: Miss) -> str | None:
    """So do tensors with a reader outside the occurrence."""
    reader = miss.data["reader"]
    if reader is None:
        return None
    readers = miss.around.readers(miss.tensor)
    text = f"tensor '{miss.tensor}' is also read by {miss.text(reader)}"
    if all(miss.around.graph.node[index].op_type == "TesselQuant" for index in readers):
        return f"{text}: replace_quant can merge quantize nodes with equal parameters"
    return f"{text}; it has {len(readers)} readers in all, and the replacement would no longer compute it"


def chained_pools(miss: Miss) -> str | None:
    """Pools in sequence instead of side by side, or the other way round."""
    node = miss.node
    if node is None or node.op_type != "MaxPool":
        return None
    before = miss.around.writer.get(node.input[0])
    readers = [miss.around.graph.node[index] for index in miss.around.readers(node.input[0])]
    if sum(reader.op_type == "MaxPool" for reader in readers) > 1:
        return f"the MaxPool nodes are side by side on '{node.input[0]}', the pattern has them in sequence"
    if before is not None and before.op_type == "MaxPool":
        return "the MaxPool nodes are in sequence, the pattern expects another arrangement"
    return None


def too_few_readers(miss: Miss) -> str | None:
    """The pattern has more readers than the graph."""
    count = len(miss.around.readers(miss.tensor))
    wanted = sum(miss.wanted.output in {link.id for link in node.inputs} for node in miss.pattern)
    state = "an output of the graph, " if miss.tensor in miss.around.outputs else ""
    return f"'{miss.tensor}' is {state}read by {count or 'no'} node{'s'[: count != 1]}; in the pattern by {wanted}"


def only_one(miss: Miss) -> str | None:
    """The pattern expects two nodes of a kind, and there is one."""
    if miss.node is None or not miss.node.input:
        return None
    name, op = miss.node.input[0], miss.wanted.op
    count = sum(miss.around.graph.node[index].op_type == op for index in miss.around.readers(name))
    return f"'{name}' has only one {op} reader, the pattern expects several" if count == 1 else None


def no_producer(miss: Miss) -> str | None:
    """Graph inputs and initializers have no writer."""
    if miss.tensor in miss.around.initializers:
        return f"'{miss.tensor}' is an initializer, the pattern expects the output of a {miss.wanted.op}"
    if miss.tensor in miss.around.inputs:
        return f"'{miss.tensor}' is a graph input, the pattern expects the output of a {miss.wanted.op}"
    return None


def no_reader(miss: Miss) -> str | None:
    """No node follows."""
    if miss.tensor in miss.around.outputs:
        return (
            f"'{miss.tensor}' is a graph output and nothing reads it, the pattern expects a {miss.wanted.op} after it"
        )
    return None


def closes_cycle(_miss: Miss) -> str | None:
    """The replacement would join parts whose order other nodes fix."""
    return "the nodes fit, but other nodes lead from one part of the match to another"
