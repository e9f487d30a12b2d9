"""`replace_concat_quant_v1`: its second pair joins the tensors in a different order than before."""

from __future__ import annotations

from onnxgraft.filling.filler import Call, Filler
from onnxgraft.filling.graph_edits import label

_CONCAT = 3  # in the pattern
_QUANTIZE_NODES, _NEW_CONCAT = range(3, 7), 7  # in both replacements


def keep_order(filler: Filler, call: Call) -> bool:
    """Joins the quantized tensors in the order of the tensors that they come from."""
    if not call.proceed():
        return False
    concat = call.node(_NEW_CONCAT)
    quantized = {node.input[0]: node.output[0] for node in map(call.node, _QUANTIZE_NODES)}
    wanted = [quantized[name] for name in call.replaced[_CONCAT].input]
    if list(concat.input) != wanted:
        del concat.input[:]
        concat.input.extend(wanted)
        filler.note(f"{label(concat)} joins its inputs in the order that they had before replace_concat_quant_v1")
    return True
