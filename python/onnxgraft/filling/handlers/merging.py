"""`replace_quant`, `replace_quant_any`: an operator that now reads another quantize node."""

from __future__ import annotations

from onnxgraft.filling.filler import Call, Filler
from onnxgraft.filling.graph_edits import label, parameters
from onnxgraft.filling.handlers.refilling import refill

_DROPPED, _OPERATOR, _KEPT = range(3)


def merge(filler: Filler, call: Call) -> bool:
    """Merges two quantize nodes; if their parameters differ, the `Conv` after them gets numbers for the new ones."""
    if not call.proceed():
        return False
    before, after = parameters(call.replaced[_DROPPED]), parameters(call.replaced[_KEPT])
    if before == after:
        return True
    what = f"scale {before.scale:g} and offset {before.offset} become {after.scale:g} and {after.offset}"
    node = call.node(1)
    origin = filler.origins.get(node.input[1]) if node.op_type == "Conv" else None
    scales = next((one.input[1] for one in call.graph.node if one.op_type == "TesselDequant"
                   and one.input[0] == node.output[0]), None)  # fmt: skip
    if origin is None or scales is None:
        filler.warn(f"merging quantize nodes changes numbers at {label(node)}: {what}")
        return True
    refill(filler, call.graph, node, scales, origin, after)
    filler.warn(f"merging quantize nodes changes numbers at {label(node)}: {what}; its bias and scales are recomputed")
    return True
