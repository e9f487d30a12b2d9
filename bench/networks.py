"""Whole networks with random weights, made by script: only the topology counts."""

from __future__ import annotations

from typing import Any

import numpy as np
import onnx
from onnx import helper, numpy_helper

from bench.workloads import model_of


class _Network:
    def __init__(self, name: str) -> None:
        self.graph = onnx.GraphProto(name=name)
        self.rng = np.random.default_rng(0)
        self.count = 0

    def tensor(self, *shape: int) -> str:
        """A random float initializer; returns its name."""
        name = f"tensor_{len(self.graph.initializer)}"
        self.graph.initializer.append(numpy_helper.from_array(self.rng.random(shape, np.float32), name))
        return name

    def numbers(self, values: list[int]) -> str:
        """An integer initializer; returns its name."""
        name = f"tensor_{len(self.graph.initializer)}"
        self.graph.initializer.append(numpy_helper.from_array(np.array(values, np.int64), name))
        return name

    def node(self, op: str, *inputs: str, **attributes: Any) -> str:
        """A node with one output; returns that output's name."""
        self.count += 1
        name = f"{op.lower()}_{self.count}"
        self.graph.node.append(helper.make_node(op, inputs, [f"{name}_out"], name=name, **attributes))
        return f"{name}_out"

    def conv(self, x: str, channels: tuple[int, int], kernel: int, stride: int = 1) -> str:
        """A Conv that keeps the size, or divides it by `stride`; channels in and out."""
        weight, bias = self.tensor(channels[1], channels[0], kernel, kernel), self.tensor(channels[1])
        pads, strides = [kernel // 2] * 4, [stride, stride]
        return self.node("Conv", x, weight, bias, kernel_shape=[kernel, kernel], pads=pads, strides=strides)

    def linear(self, x: str, size: tuple[int, int]) -> str:
        """A product with a weight of `size`, plus a bias."""
        return self.node("Add", self.node("MatMul", x, self.tensor(*size)), self.tensor(size[1]))


def resnet50(width: int = 64) -> onnx.ModelProto:
    """ResNet-50 with its batch normalization folded; full width is 64: 53 Conv, 25.5 million parameters."""
    net = _Network("resnet50")
    x = net.node("Relu", net.conv("image", (3, width), 7, 2))
    x = net.node("MaxPool", x, kernel_shape=[3, 3], pads=[1] * 4, strides=[2, 2])
    channels = width
    for stage, blocks in enumerate((3, 4, 6, 3)):
        inner = width << stage
        for block in range(blocks):
            stride = 2 if stage and not block else 1
            y = net.node("Relu", net.conv(x, (channels, inner), 1))
            y = net.node("Relu", net.conv(y, (inner, inner), 3, stride))
            y = net.conv(y, (inner, 4 * inner), 1)
            shortcut = x if block else net.conv(x, (channels, 4 * inner), 1, stride)
            channels = 4 * inner
            x = net.node("Relu", net.node("Add", y, shortcut))
    x = net.node("Flatten", net.node("GlobalAveragePool", x))
    x = net.node("Gemm", x, net.tensor(1000, channels), net.tensor(1000), transB=1)
    return model_of(net.graph, "image", x, [1, 3, 224, 224])


def _normalized(net: _Network, x: str, width: int) -> str:
    """Layer normalization as exporters of opset 16 and older write it."""
    centred = net.node("Sub", x, net.node("ReduceMean", x, axes=[-1]))
    power = net.node("Pow", centred, net.tensor())
    deviation = net.node("Sqrt", net.node("Add", net.node("ReduceMean", power, axes=[-1]), net.tensor()))
    scaled = net.node("Mul", net.node("Div", centred, deviation), net.tensor(width))
    return net.node("Add", scaled, net.tensor(width))


def _attention(net: _Network, x: str, width: int, heads: int) -> str:
    split, joined = [0, 0, heads, width // heads], [0, 0, width]
    turned = []
    for perm in ([0, 2, 1, 3], [0, 2, 3, 1], [0, 2, 1, 3]):
        parts = net.node("Reshape", net.linear(x, (width, width)), net.numbers(split))
        turned.append(net.node("Transpose", parts, perm=perm))
    query, key, value = turned
    scores = net.node("Div", net.node("MatMul", query, key), net.tensor())
    weights = net.node("Softmax", scores, axis=-1)
    mixed = net.node("Transpose", net.node("MatMul", weights, value), perm=[0, 2, 1, 3])
    return net.linear(net.node("Reshape", mixed, net.numbers(joined)), (width, width))


def bert(layers: int = 12, width: int = 48, heads: int = 12) -> onnx.ModelProto:
    """The encoder of BERT-base by its nodes, narrow: the values of its weights play no part in matching."""
    net = _Network("bert")
    x = net.node("Gather", net.tensor(100, width), "tokens")
    x = _normalized(net, x, width)
    for _ in range(layers):
        x = _normalized(net, net.node("Add", _attention(net, x, width, heads), x), width)
        y = net.linear(x, (width, 4 * width))
        error = net.node("Add", net.node("Erf", net.node("Div", y, net.tensor())), net.tensor())
        y = net.node("Mul", net.node("Mul", y, error), net.tensor())
        x = _normalized(net, net.node("Add", net.linear(y, (4 * width, width)), x), width)
    first = net.node("Gather", x, net.numbers([0]), axis=1)
    x = net.node("Tanh", net.node("Gemm", net.node("Flatten", first), net.tensor(width, width), net.tensor(width)))
    return model_of(net.graph, "tokens", x, [1, 32])
