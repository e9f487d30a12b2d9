"""Graphs to measure with."""

from __future__ import annotations

import numpy as np
import onnx
from onnx import helper, numpy_helper


def conv_chain(length: int, shape: tuple[int, int, int, int] = (1, 1, 1, 1)) -> onnx.GraphProto:
    """A chain of Conv with weight and bias of their own, weights of `shape` [out, in, height, width]."""
    rng = np.random.default_rng(0)
    graph = onnx.GraphProto(name="conv_chain")
    for i in range(length):
        weight, bias = rng.random(shape, np.float32), rng.random(shape[0], np.float32)
        graph.initializer.append(numpy_helper.from_array(weight, f"weight_{i}"))
        graph.initializer.append(numpy_helper.from_array(bias, f"bias_{i}"))
        graph.node.append(
            helper.make_node("Conv", [f"tensor_{i}", f"weight_{i}", f"bias_{i}"], [f"tensor_{i + 1}"], name=f"conv_{i}")
        )
    return graph


def copy_of(graph: onnx.GraphProto) -> onnx.GraphProto:
    """An equal graph of its own."""
    copy = onnx.GraphProto()
    copy.CopyFrom(graph)
    return copy
