"""The operators that the quantizing transformations of the catalogue quantize, read from their lists."""

from __future__ import annotations

import functools
from collections.abc import Mapping

from onnxgraft import quant
from onnxgraft.catalogue import Transformation, rows
from onnxgraft.catalogue.notation import read_pair


def is_quantizing(row: Transformation) -> bool:
    """Whether it draws weights for operators."""
    return issubclass(row.cls, quant._QuantTransformation)


@functools.cache
def quantized_by() -> Mapping[str, str]:
    """Operator -> the built-in transformation that quantizes it."""
    found: dict[str, str] = {}
    for row in rows().values():
        if row.is_own and is_quantizing(row):
            for op in given_weights(row):
                found.setdefault(op, row.name)
    return found


@functools.cache
def given_weights(row: Transformation) -> frozenset[str]:
    """The operators that a transformation copies with a new weight: it makes them INT8, or float again."""
    found = set()
    for pattern, replacement in row.pairs:
        nodes, entries = read_pair(pattern, replacement)
        old = {link.id for node in nodes for link in node.inputs}
        for entry in entries:
            weight = entry.node.inputs[1:2]
            if entry.source is not None and any(link.initializer and link.id not in old for link in weight):
                found.add(nodes[entry.source].op)
    return frozenset(found)
