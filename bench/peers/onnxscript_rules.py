"""The rewriter of onnxscript: two rules, with bias and without, as one set; intermediate representation and back."""

# mypy: disable-error-code="import-not-found,import-untyped,misc"
from __future__ import annotations

from typing import Any

from onnx_ir.passes.common import RemoveUnusedNodesPass
from onnxscript import ir
from onnxscript.rewriter import pattern

from bench import arithmetic
from bench.peers import Peer


class _QuantConv(pattern.RewriteRuleClassBase):
    def check(self, context: Any, weight: Any, bias: Any = None, **_: Any) -> bool:
        tensors = [weight] if bias is None else [weight, bias]
        return all(t.is_initializer() for t in tensors) and weight.const_value.dtype != ir.DataType.INT8

    def rewrite(self, op: Any, x: Any, weight: Any, result: Any, bias: Any = None) -> Any:
        node = result.producer()
        constants = [weight] if bias is None else [weight, bias]
        shapes = [tuple(tensor.const_value.shape.numpy()) for tensor in constants]
        drawn = [arithmetic.drawn_weight(shapes[0]), *map(arithmetic.drawn_bias, shapes[1:])]
        names = [f"{old.name}_quantized" for old in constants]
        tensors = [op.initializer(ir.tensor(new, name=name)) for name, new in zip(names, drawn, strict=True)]
        words = arithmetic.drawn_scales(shapes[0][0])
        scale = op.initializer(ir.tensor(words, name=f"{node.name}_scale"))
        quantized = op.TesselQuant(x, scale=1.0, offset=0.0)
        return op.TesselDequant(op.Conv(quantized, *tensors, **node.attributes), scale)


class _WithBias(_QuantConv):
    def pattern(self, op: Any, x: Any, weight: Any, bias: Any) -> Any:
        return op.Conv(x, weight, bias, _allow_other_attributes=True, _outputs=["result"])


class _WithoutBias(_QuantConv):
    def pattern(self, op: Any, x: Any, weight: Any) -> Any:
        return op.Conv(x, weight, _allow_other_attributes=True, _allow_other_inputs=False, _outputs=["result"])


_RULES = pattern.RewriteRuleSet([_WithBias().rule(), _WithoutBias().rule()])


def quant_conv(model: Any) -> None:
    """Puts every Conv with constant float weight between a quantize and a dequantize node."""
    _RULES.apply_to_model(model)
    RemoveUnusedNodesPass()(model)  # and the initializers without a reader


PEER = Peer("onnxscript rewriter", quant_conv, ir.from_proto, ir.to_proto)
