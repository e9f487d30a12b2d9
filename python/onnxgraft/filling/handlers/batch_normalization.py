"""`fuse_bn_quant`: the normalization goes into both convolutions.

    y = (x - mean) * f + beta,   f = gamma / sqrt(variance + epsilon)

per channel of the joined tensor, so that each convolution gets weight * f and the bias beta - mean * f.
"""

from __future__ import annotations

from dataclasses import replace

import numpy as np

from onnxgraft.filling.errors import FillingError
from onnxgraft.filling.filler import Call, Filler
from onnxgraft.filling.float_operators import attribute
from onnxgraft.filling.graph_edits import label
from onnxgraft.filling.handlers.refilling import refill
from onnxgraft.transform_utilities import get_init

# Per branch: its INT8 weight and dequantize scales, and the position of its `Conv` in the replacement.
_BRANCHES = (("2", "4", 1), ("8", "10", 5))
_CONCAT, _NORMALIZATION = 6, 7


def fuse_normalization(filler: Filler, call: Call) -> bool:
    """Folds one normalization into the two branches before it."""
    graph, links = call.graph, call.links
    gamma, beta, mean, variance = (np.asarray(values, np.float64) for values in get_init(
        graph, [links[name] for name in ("13", "14", "15", "16")])[0])  # fmt: skip
    if not call.proceed():
        return False
    normalization, concat = call.replaced[_NORMALIZATION], call.replaced[_CONCAT]
    factor = gamma / np.sqrt(variance + attribute(normalization, "epsilon", 1e-5))
    shift = beta - mean * factor
    origins = [filler.origin(links[weight]) for weight, _, _ in _BRANCHES]
    counts = [len(origin.operator.weight) for origin in origins]
    rank = origins[0].operator.weight.ndim
    along_channels = int(attribute(concat, "axis", 1)) % rank == 1
    wanted = sum(counts) if along_channels else counts[0]
    if len(factor) != wanted or not (along_channels or counts[0] == counts[1]):
        raise FillingError(f"{label(normalization)} has {len(factor)} channels, its input has {wanted}")
    start = 0
    for (_, scales, position), origin, count in zip(_BRANCHES, origins, counts, strict=True):
        own = slice(start, start + count)
        start += count if along_channels else 0
        shaped = factor[own].reshape(-1, *[1] * (rank - 1))
        operator = replace(origin.operator, weight=origin.operator.weight * shaped, bias=shift[own], exact=None)
        correction = None if origin.correction is None else origin.correction * factor[own]
        fused = replace(origin, operator=operator, correction=correction)
        refill(filler, graph, call.node(position), links[scales], fused, origin.activation)
    return True
