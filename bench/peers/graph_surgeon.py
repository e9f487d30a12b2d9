"""onnx-graphsurgeon: import, edit its own nodes and tensors, remove what is no longer read, export."""

# mypy: disable-error-code="import-not-found,import-untyped"
from __future__ import annotations

from typing import Any

import numpy as np
import onnx_graphsurgeon as gs

from bench import arithmetic
from bench.peers import Peer


def quant_conv(graph: Any) -> int:
    """Puts every Conv with constant float weight between a quantize and a dequantize node."""
    replaced = 0
    nodes = []
    for node in graph.nodes:
        constants = node.inputs[1:]
        if node.op != "Conv" or not all(isinstance(tensor, gs.Constant) for tensor in constants):
            nodes.append(node)
            continue
        if constants[0].dtype == np.int8:
            nodes.append(node)
            continue
        name, (result,) = node.name, node.outputs
        quantized, product = gs.Variable(f"{name}_quantized"), gs.Variable(f"{name}_product")
        attributes = {"scale": 1.0, "offset": 0.0}
        quantize = gs.Node("TesselQuant", f"{name}_quant", attributes, [node.inputs[0]], [quantized])
        shapes = [tensor.shape for tensor in constants]
        drawn = [arithmetic.drawn_weight(shapes[0]), *map(arithmetic.drawn_bias, shapes[1:])]
        scale = gs.Constant(f"{name}_scale", arithmetic.drawn_scales(shapes[0][0]))
        node.inputs = [
            quantized,
            *(gs.Constant(f"{old.name}_quantized", new) for old, new in zip(constants, drawn, strict=True)),
        ]
        node.outputs = [product]
        dequantize = gs.Node("TesselDequant", f"{name}_dequant", inputs=[product, scale], outputs=[result])
        nodes += (quantize, node, dequantize)
        replaced += 1
    graph.nodes = nodes
    return replaced


PEER = Peer("onnx-graphsurgeon", quant_conv, gs.import_onnx, lambda graph: gs.export_onnx(graph, do_type_check=False))
