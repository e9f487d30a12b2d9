"""A nearest miss as a sentence with the names of nodes: one form for each reason."""

from __future__ import annotations

from collections.abc import Callable, Mapping

from onnx import NodeProto

from onnxgraft.matching.hints import Miss

# {node}: the node tried, {input}: "input 1 'w'", {source}: its source, {op}: the operator expected.
_FORMS: Mapping[str, str] = {
    "missing_operator": "the graph has no {op}",
    "wrong_operator": "{node} is where the pattern expects a {op}",
    "output_count": "{node} has several outputs, the pattern expects one",
    "second_producer": "an earlier node also writes '{tensor}'",
    "input_count": "{node} has {inputs}, the pattern expects {wanted}",
    "input_omitted": "input {slot} of {node} is omitted, the pattern expects a tensor",
    "not_initializer": "{input} of {node} {source}, the pattern expects an initializer",
    "rest_not_initializer": "{input} of {node} {source}, the pattern expects initializers from there on",
    "different_tensors": "{node} has a tensor other than '{tensor}' at input {slot}",
    "other_position": "{node} reads '{tensor}', but not as input {slot}",
    "graph_output": "'{tensor}' is an output of the graph, and the replacement removes it",
    "read_by_body": "'{tensor}' is read inside a nested graph, and the replacement removes it",
    "read_elsewhere": "'{tensor}' is also read by {reader}, and the replacement removes it",
    "too_few_readers": "'{tensor}' has fewer readers than the pattern expects",
    "same_tensor": "two ids of the pattern would both be '{tensor}', and the replacement removes it",
    "node_used_twice": "{node} already is another node of the pattern",
    "no_producer": "'{tensor}' {source}, the pattern expects the output of a {op}",
    "no_reader": "nothing reads '{tensor}', the pattern expects a {op} there",
    "closes_cycle": "all nodes fit, but the replacement would close a cycle",
}


def label(node: NodeProto) -> str:
    """Operator and name, or its output if it has no name."""
    return f"{node.op_type} '{node.name}'" if node.name else f"{node.op_type} (writes '{next(iter(node.output), '')}')"


def sentence(miss: Miss) -> str:
    """How far the attempt got, and why it ended."""
    around = miss.around
    words: Mapping[str, Callable[[], str]] = {
        "node": lambda: "a node" if miss.node is None else label(miss.node),
        "op": lambda: miss.wanted.op,
        "tensor": lambda: miss.tensor,
        "slot": lambda: str(miss.slot),
        "input": lambda: f"input {miss.slot} '{miss.tensor}'",
        "inputs": lambda: _count(0 if miss.node is None else len(_given(miss.node))),
        "wanted": lambda: f"{len(miss.wanted.inputs)}{' or more' if miss.wanted.rest else ''}",
        "source": lambda: _source(miss),
        "reader": lambda: label(around.nodes[miss.data["reader"]]),
    }
    form = _FORMS[miss.reason]
    text = form.format_map({name: word() for name, word in words.items() if f"{{{name}}}" in form})
    matched, of = miss.data["matched"], len(miss.pattern)
    return f"{matched} of {of} pattern nodes fit; {text}" if matched else text


def _given(node: NodeProto) -> list[str]:
    inputs = list(node.input)
    while inputs and not inputs[-1]:
        inputs.pop()
    return inputs


def _count(number: int) -> str:
    return f"{number} input{'s'[: number != 1]}"


def _source(miss: Miss) -> str:
    if miss.writer is not None:
        return f"is written by {label(miss.writer)}"
    if miss.tensor in miss.around.initializers:
        return "is an initializer"
    return "is an input of the graph" if miss.tensor in miss.around.inputs else "is written by no node of the graph"
