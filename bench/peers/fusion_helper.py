"""The fusion helper of onnxruntime's Python tools, used as its own fusions use it."""

# mypy: disable-error-code="import-not-found,import-untyped,misc"
from __future__ import annotations

from typing import Any

import onnx
from onnx import NodeProto, TensorProto, helper
from onnxruntime.transformers.fusion_base import Fusion
from onnxruntime.transformers.onnx_model import OnnxModel

from bench import arithmetic
from bench.peers import Peer


class _QuantConv(Fusion):
    def __init__(self, model: Any) -> None:
        super().__init__(model, "TesselQuant", "Conv")

    def fuse(self, node: NodeProto, input_name_to_nodes: Any, output_name_to_node: Any) -> None:
        constants = [self.model.get_initializer(name) for name in node.input[1:]]
        if None in constants or constants[0].data_type == TensorProto.INT8:
            return
        name, made = node.name, []
        for position, old in enumerate(constants):
            shape = tuple(old.dims)
            drawn = arithmetic.drawn_bias(shape) if position else arithmetic.drawn_weight(shape)
            kind = TensorProto.INT32 if position else TensorProto.INT8
            made.append(self.add_initializer(f"{old.name}_quantized", kind, shape, drawn).name)
        words = arithmetic.drawn_scales(constants[0].dims[0])
        scale = self.add_initializer(f"{name}_scale", TensorProto.UINT64, words.shape, words)
        quantized, product = f"{name}_quantized", f"{name}_product"
        quantize = helper.make_node("TesselQuant", [node.input[0]], [quantized], name=f"{name}_quant")
        quantize.attribute.extend(arithmetic.quantize_attributes())
        conv = helper.make_node("Conv", [quantized, *made], [product], name=f"{name}_int8")
        conv.attribute.extend(node.attribute)
        dequantize = helper.make_node("TesselDequant", [product, scale.name], node.output, name=f"{name}_dequant")
        self.nodes_to_remove.append(node)
        for new in (quantize, conv, dequantize):
            self.nodes_to_add.append(new)
            self.node_name_to_graph_name[new.name] = self.this_graph_name


def quant_conv(model: onnx.ModelProto) -> None:
    """Puts every Conv with constant float weight between a quantize and a dequantize node."""
    wrapped = OnnxModel(model)
    _QuantConv(wrapped).apply()
    wrapped.topological_sort()


PEER = Peer("onnxruntime fusion helper", quant_conv)
