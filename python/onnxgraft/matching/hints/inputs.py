"""Hints about the number, order and omission of inputs, and the number of outputs."""

from __future__ import annotations

import math

from onnxgraft.matching.hints.miss import COMMUTATIVE, Miss

_RESIZE_INPUTS = ("x", "roi", "scales", "sizes")


def constant_of_two(miss: Miss) -> str | None:
    """Height and width after a sliced shape: one constant of two elements instead of two constants."""
    node = miss.node
    if node is None or miss.wanted.op != "Concat" or len(node.input) != len(miss.wanted.inputs) - 1:
        return None
    values = [miss.around.constant(name) for name in node.input[1:]]
    if not any(value is not None and math.prod(value.dims) == 2 for value in values):
        return None
    return "the Concat joins one constant of two elements (height and width): prepare splits it (split_resize_sizes)"


def resize_inputs(miss: Miss) -> str | None:
    """With scales or with sizes: the number of inputs differs."""
    node = miss.node
    if node is None or node.op_type != "Resize":
        return None
    given, wanted = (_resize_by(count) for count in (len(_stripped(list(node.input))), len(miss.wanted.inputs)))
    return f"this Resize has {given}, the pattern expects {wanted}" if given and wanted else None


def missing_bias(miss: Miss) -> str | None:
    """An operator with or without bias."""
    node = miss.node
    if node is None or node.op_type not in ("Conv", "Gemm", "ConvTranspose"):
        return None
    count, wanted = len(_stripped(list(node.input))), len(miss.wanted.inputs)
    if (count, wanted) not in ((2, 3), (3, 2)):
        return None
    state = "without bias" if count == 2 else "with bias"
    all_same = miss.around.input_counts[node.op_type] == {count}
    who = f"every {node.op_type} of the graph is one" if all_same else f"this {node.op_type} is one"
    return f"{who} {state} ({count} inputs), the pattern expects {wanted}"


def other_count(miss: Miss) -> str | None:
    """Nothing better is known than the two numbers."""
    if miss.node is None:
        return None
    count = len(_stripped(list(miss.node.input)))
    counts = sorted(miss.around.input_counts[miss.node.op_type])
    text = (
        f"the {miss.node.op_type} has {count} input{'s'[: count != 1]}, the pattern expects {len(miss.wanted.inputs)}"
    )
    if len(counts) > 1 and len(miss.wanted.inputs) not in counts:
        text += f"; those of this graph have {', '.join(map(str, counts))}"
    return text


def omitted_resize_input(miss: Miss) -> str | None:
    """Exporters omit inputs that `sizes` makes redundant; the patterns name them."""
    node = miss.node
    if node is None or node.op_type != "Resize" or not 1 <= miss.slot <= 2:
        return None
    name = _RESIZE_INPUTS[miss.slot]
    if len(node.input) == 4 and node.input[3]:
        return f"the Resize omits '{name}' next to its sizes: prepare makes it an empty one (fill_resize_inputs)"
    return f"the Resize omits '{name}', and the pattern names it"


def omitted(miss: Miss) -> str | None:
    """Any other operator."""
    return None if miss.node is None else f"the {miss.node.op_type} omits an optional input that the pattern names"


def exchanged_initializer(miss: Miss) -> str | None:
    """The initializer is there, but at another input."""
    node = miss.node
    if node is None:
        return None
    links = miss.wanted.inputs
    for slot, name in enumerate(node.input[: len(links)]):
        if name in miss.around.initializers and not links[slot].initializer:
            if node.op_type in COMMUTATIVE:
                return (
                    f"inputs swapped: '{name}' is input {slot}, the pattern expects it at {miss.slot}; {node.op_type} "
                    "computes the same either way"
                )
            return (
                f"the initializer '{name}' is input {slot} of the {node.op_type}, the pattern expects it at {miss.slot}"
            )
    return None


def exchanged_producers(miss: Miss) -> str | None:
    """The writer of one input of a node should write another input of it, or the other way round."""
    writers = {node.output: node.op for node in miss.pattern}
    for role, index, slot in miss.neighbours():
        reader = miss.around.graph.node[index]
        here = miss.around.writer[reader.input[slot]].op_type
        for other, link in enumerate(role.inputs):
            there = miss.around.writer.get(reader.input[other])
            if other == slot or there is None or there.op_type != miss.wanted.op or writers.get(link.id, here) != here:
                continue
            text = f"inputs swapped: {miss.text(index)} has the {miss.wanted.op} at input {other}, "
            text += f"the pattern expects it at {slot}"
            return f"{text}; {reader.op_type} computes the same either way" if reader.op_type in COMMUTATIVE else text
    return None


def missing_sibling(miss: Miss) -> str | None:
    """The pattern has a node of another operator next to the tried one, on the same tensor."""
    node, wanted = miss.node, {link.id for link in miss.wanted.inputs}
    for role in miss.pattern if node is not None else ():
        if role.op != node.op_type or len(role.inputs) > len(node.input):  # type: ignore[union-attr]
            continue
        for slot, link in enumerate(role.inputs):
            name = node.input[slot]  # type: ignore[union-attr]
            readers = [miss.around.graph.node[index].op_type for index in miss.around.readers(name)]
            if link.id in wanted and not link.initializer and miss.wanted.op not in readers:
                return f"the pattern expects a {miss.wanted.op} next to the {role.op}, but none reads '{name}'"
    return None


def other_position(miss: Miss) -> str | None:
    """The tensor is there, but at another input."""
    if miss.node is None or miss.tensor not in miss.node.input:
        return None
    there = list(miss.node.input).index(miss.tensor)
    text = f"'{miss.tensor}' is input {there} of the {miss.node.op_type}, the pattern expects it at {miss.slot}"
    if miss.node.op_type in COMMUTATIVE:
        return f"inputs swapped: {text}; {miss.node.op_type} computes the same either way"
    return f"inputs in another order: {text}"


def different_tensors(miss: Miss) -> str | None:
    """Two inputs must be the same tensor."""
    uses = [link.id for link in miss.wanted.inputs]
    if miss.node is None or len(set(uses)) == len(uses):
        return None
    return f"the pattern expects one tensor at several inputs of the {miss.node.op_type}"


def further_outputs(miss: Miss) -> str | None:
    """A node of a pattern has exactly one output."""
    node = miss.node
    if node is None:
        return None
    further = [name for name in node.output[1:] if name]
    if not further:
        return None
    used = [name for name in further if miss.around.readers(name) or name in miss.around.outputs]
    if used:
        return f"a second output, '{used[0]}', is in use; a pattern node has one output"
    return f"nothing reads its other output '{further[0]}': a node without it would fit"


def _resize_by(count: int) -> str | None:
    return {3: "scales", 4: "sizes"}.get(count)


def _stripped(names: list[str]) -> list[str]:
    while names and not names[-1]:
        names.pop()
    return names
