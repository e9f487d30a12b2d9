"""Channels that can be brought to one range without changing what a model computes.

A quantize node has one scale for all channels of a tensor, so a channel with small values keeps few of its bits. If a
depthwise `Conv` reads the tensor, each channel can be divided by a factor in the weights or constants that produce it.
The weights of the depthwise `Conv` are multiplied by the same factor. They have a scale for each channel, so this costs
no accuracy.
"""

from __future__ import annotations

from collections.abc import Iterator
from dataclasses import dataclass, field

import onnx

from onnxgraft.graph.surroundings import Surroundings

# y(x / f) = y(x) / f for each f > 0
_HOMOGENEOUS = {"Relu", "LeakyRelu", "Identity", "MaxPool", "AveragePool"}
_CHANNEL_AXIS = 1
ELEMENTWISE = {"Add", "Mul", "Div"}


@dataclass
class Equalizable:
    """One tensor whose channels can be divided by factors.

    Attributes:
        tensor: A tensor that only depthwise `Conv` nodes read.
        channels: How many channels it has.
        rank: Its rank.
        readers: These nodes.
        divided: Where the factors go in: nodes, and which of their inputs is a constant to be divided; that of a `Div`
            is to be multiplied.
        between: All tensors that get other values: `tensor`, and those on the path to it.
    """

    tensor: str
    channels: int
    rank: int
    readers: list[onnx.NodeProto]
    divided: list[tuple[onnx.NodeProto, int]] = field(default_factory=list)
    between: list[str] = field(default_factory=list)


def equalizable(graph: onnx.GraphProto) -> Iterator[Equalizable]:
    """The tensors of a graph whose channels can be equalized, in the order of their first readers."""
    around = Surroundings(graph)
    seen = set()
    for node in graph.node:
        tensor = node.input[0] if node.op_type == "Conv" else ""
        if tensor in seen or not _is_depthwise(node, around):
            continue
        seen.add(tensor)
        readers = [around.nodes[index] for index in around.readers(tensor)]
        weight = around.initializers[node.input[1]]
        if all(reader.input[0] == tensor and _is_depthwise(reader, around) for reader in readers):
            group = next(one.i for one in node.attribute if one.name == "group")
            found = Equalizable(tensor, group, len(weight.dims), readers)
            if _follow(found, around):
                yield found


def _is_depthwise(node: onnx.NodeProto, around: Surroundings) -> bool:
    """Whether each channel of the input has weights of its own."""
    weight = around.initializers.get(node.input[1]) if node.op_type == "Conv" else None
    group = next((one.i for one in node.attribute if one.name == "group"), 1)
    return weight is not None and group > 1 and weight.dims[1] == 1 and weight.dims[0] % group == 0


def _follow(found: Equalizable, around: Surroundings) -> bool:
    """Goes back from the tensor to constants in which its channels can be divided; False if there are none."""
    name = found.tensor
    while True:
        readers = len(around.readers(name))
        is_single = readers == 1 or name == found.tensor
        if not is_single or name in around.outputs or around.body_reader(name) is not None:
            return False
        found.between.append(name)
        node = around.writer.get(name)
        if node is None or len([output for output in node.output if output]) != 1:
            return False
        if node.op_type in _HOMOGENEOUS:
            name = node.input[0]
            continue
        if node.op_type in ELEMENTWISE:
            position = next(
                (
                    place
                    for place in ((1,) if node.op_type == "Div" else (0, 1))
                    if node.input[place] in around.initializers
                ),
                None,
            )
            if position is None or not _fits(around.initializers[node.input[position]], found):
                return False
            found.divided.append((node, position))
            if node.op_type != "Add":
                return True
            name = node.input[1 - position]
            continue
        places = {"Conv": range(1, len(node.input)), "BatchNormalization": range(1, 3)}.get(node.op_type, range(0))
        found.divided += [(node, place) for place in places if node.input[place]]
        return bool(places) and all(
            node.input[place] in around.initializers
            and around.initializers[node.input[place]].dims[0] == found.channels
            for place in places
            if node.input[place]
        )


def _fits(constant: onnx.TensorProto, found: Equalizable) -> bool:
    """Whether it is one number, or one for each channel."""
    sizes = [1] * (found.rank - len(constant.dims)) + list(constant.dims)
    if len(sizes) != found.rank:
        return False
    channels = sizes.pop(_CHANNEL_AXIS)
    return channels in {1, found.channels} and all(size == 1 for size in sizes)
