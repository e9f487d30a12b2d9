"""Chains to measure with: the same few nodes repeatedly, with the smallest possible tensors."""

from __future__ import annotations

from collections.abc import Callable

import numpy as np
import numpy.typing as npt
import onnx
from onnx import TensorProto, helper, numpy_helper

CHANNELS = 2
_WEIGHT = (CHANNELS, CHANNELS, 1, 1)
_QUANTIZE = [helper.make_attribute("scale", 0.5), helper.make_attribute("offset", 0.0)]

Link = Callable[["Chain", int], None]


class Chain:
    """A graph that grows by a few nodes at a time; "t0" is its input, "t<i>" the output of link number i."""

    def __init__(self, name: str) -> None:
        self.graph = onnx.GraphProto(name=name)
        self.rng = np.random.default_rng(0)

    def node(self, op: str, inputs: list[str], output: str) -> None:
        """A node that writes one tensor."""
        node = self.graph.node.add(op_type=op, name=f"{op}_{output}", input=inputs, output=[output])
        if op == "TesselQuant":
            node.attribute.extend(_QUANTIZE)
        if op == "Concat":
            node.attribute.append(helper.make_attribute("axis", 1))

    def conv(self, source: str, output: str, weight: npt.NDArray[np.generic], bias: npt.NDArray[np.generic]) -> None:
        """A Conv with initializers of its own."""
        names = [f"{output}_weight", f"{output}_bias"]
        for name, values in zip(names, (weight, bias), strict=True):
            self.graph.initializer.append(numpy_helper.from_array(values, name))
        self.node("Conv", [source, *names], output)

    def float_conv(self, source: str, output: str) -> None:
        """A Conv that is not quantized yet."""
        self.conv(source, output, self.rng.random(_WEIGHT, np.float32), self.rng.random(CHANNELS, np.float32))

    def quantized_conv(self, source: str, output: str) -> None:
        """A Conv with INT8 weight and INT32 bias."""
        self.conv(source, output, np.ones(_WEIGHT, np.int8), np.ones(CHANNELS, np.int32))


def _conv_relu(chain: Chain, i: int) -> None:
    chain.float_conv(f"t{i}", f"conv{i}")
    chain.node("Relu", [f"conv{i}"], f"t{i + 1}")


def _quantized_conv_relu(chain: Chain, i: int) -> None:
    chain.quantized_conv(f"t{i}", f"conv{i}")
    chain.node("Relu", [f"conv{i}"], f"t{i + 1}")


def _two_quantize_nodes(chain: Chain, i: int) -> None:
    chain.node("TesselQuant", [f"t{i}"], f"first{i}")
    chain.quantized_conv(f"first{i}", f"conv{i}")
    chain.node("TesselQuant", [f"t{i}"], f"second{i}")
    chain.node("Relu", [f"second{i}"], f"relu{i}")
    chain.node("Add", [f"conv{i}", f"relu{i}"], f"t{i + 1}")


def _quantized_join(chain: Chain, i: int) -> None:
    chain.node("Relu", [f"t{i}"], f"relu{i}")
    chain.node("Concat", [f"t{i}", f"relu{i}"], f"join{i}")
    chain.node("TesselQuant", [f"join{i}"], f"quantized{i}")
    chain.quantized_conv(f"quantized{i}", f"t{i + 1}")


LINKS: dict[str, Link] = {
    "conv": _conv_relu,  # occurrences of quant_conv
    "refused": _quantized_conv_relu,  # INT8 already
    "merge": _two_quantize_nodes,  # occurrences of replace_quant_any
    "pull_up": _quantized_join,  # occurrences of replace_quant_v2
}


def chain_model(kind: str, length: int) -> onnx.ModelProto:
    """A model of `length` links of a kind, one after the other."""
    chain = Chain(kind)
    for i in range(length):
        LINKS[kind](chain, i)
    return model_of(chain.graph, "t0", f"t{length}", [1, CHANNELS, 4, 4])


def model_of(graph: onnx.GraphProto, source: str, result: str, shape: list[int]) -> onnx.ModelProto:
    """The model of a graph with one input and one output."""
    graph.input.append(helper.make_tensor_value_info(source, TensorProto.FLOAT, shape))
    graph.output.append(helper.make_tensor_value_info(result, TensorProto.FLOAT, None))
    return helper.make_model(graph, opset_imports=[helper.make_opsetid("", 17)], ir_version=8)


def copy_of(graph: onnx.GraphProto) -> onnx.GraphProto:
    """An equal graph of its own."""
    copy = onnx.GraphProto()
    copy.CopyFrom(graph)
    return copy


def model_copy(model: onnx.ModelProto) -> onnx.ModelProto:
    """An equal model of its own."""
    copy = onnx.ModelProto()
    copy.CopyFrom(model)
    return copy
