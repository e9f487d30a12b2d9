"""`update_tesselquant`: a `Conv` reads its tensor with the parameters of the concatenation that it goes into."""

from __future__ import annotations

import math

from onnxgraft.filling.filler import Call, Filler
from onnxgraft.filling.graph_edits import label, parameters
from onnxgraft.filling.handlers.refilling import refill


def update(filler: Filler, call: Call) -> bool:
    """Recomputes the numbers of the `Conv`, so that only the resolution of the other parameters limits accuracy."""
    graph, links = call.graph, call.links
    if not call.proceed():
        return False
    node, before, after = call.node(1), parameters(call.replaced[0]), parameters(call.node(0))
    if before == after:
        refill(filler, graph, node, links["6"], filler.origin(node.input[1]), after)
        return True
    refill(filler, graph, node, links["6"], filler.origin(node.input[1]), after)
    bits = math.log2(before.scale / after.scale)
    filler.note(
        f"update_tesselquant: {label(node)} reads '{links['0']}' in steps of {after.step:.3g}, not {before.step:.3g}: "
        f"{abs(bits):.1f} bits {'less' if bits > 0 else 'more'}"
    )
    return True
