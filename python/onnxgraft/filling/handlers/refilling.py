"""Recomputes the numbers of a quantized operator, for other parameters of its input or another float weight."""

from __future__ import annotations

from dataclasses import replace

import numpy as np
import onnx

from onnxgraft.filling import graph_edits
from onnxgraft.filling.activations import Activation
from onnxgraft.filling.filler import Filler
from onnxgraft.filling.origins import Origin
from onnxgraft.transform_utilities import get_init


def refill(
    filler: Filler, graph: onnx.GraphProto, node: onnx.NodeProto, scales: str, origin: Origin, activation: Activation
) -> None:
    """Writes weight, bias and scales of a quantized `Conv` that reads a quantize node directly.

    Args:
        filler: The filler of this run.
        graph: The graph.
        node: The quantized operator.
        scales: The initializer that holds its dequantize scales.
        origin: Its float form.
        activation: The parameters of the quantize node that it reads now.

    Raises:
        FillingError: There are no such numbers.
    """
    weight = node.input[1]
    origin = replace(origin, activation=activation)
    numbers = origin.numbers()
    old = get_init(graph, (weight,))[0][0]
    if not np.array_equal(old, numbers.weight):
        graph_edits.put(graph, weight, numbers.weight, filler.store)
    if numbers.bias is not None:
        graph_edits.put(graph, node.input[2], numbers.bias)
    graph_edits.put_scales(graph, scales, numbers.scales)
    filler.origins[weight] = origin
