"""`change_gap_conv`: convolutions that become float again get their own float weights, not rounded ones."""

from __future__ import annotations

import numpy as np

from onnxgraft.filling import graph_edits
from onnxgraft.filling.filler import Call, Filler

# INT8 weight before; float weight and bias after
_CONVOLUTIONS = (("3", "100", "101"), ("11", "102", "103"))


def make_float_again(filler: Filler, call: Call) -> bool:
    """Puts the original weights and biases back."""
    if not call.proceed():
        return False
    for quantized, weight, bias in _CONVOLUTIONS:
        origin = filler.origins.pop(call.links[quantized], None)
        if origin is not None and origin.operator.bias is not None:
            values = np.asarray(origin.operator.weight, np.float32)
            graph_edits.put(call.graph, call.links[weight], values, filler.store)
            graph_edits.put(call.graph, call.links[bias], np.asarray(origin.operator.bias, np.float32))
            filler.forget(origin)
    return True
