"""Finds where two models diverge: the first tensor of the same name, in computation order, that differs."""

from __future__ import annotations

from collections.abc import Mapping, Sequence

import onnx

from onnxgraft.evaluation import Convention, EvaluationError
from onnxgraft.verification.comparing import compare
from onnxgraft.verification.computing import Array, Computer, Side

# Tensors that are held in memory at a time, for each model.
_AT_ONCE = 256
_WITHOUT_ONE_ARRAY = ("Sequence", "SplitToSequence", "Optional")


def find_first_difference(
    sides: Sequence[Side],
    computer: Computer,
    convention: Convention,
    values: Mapping[str, Array],
    tolerance: float | None,
) -> str | None:
    """The tensor with its writer and the size of the difference; None if only tensors without a common name differ.

    If none differs, the first one without any finite element.
    """
    before, after = (_writers(side.model.graph) for side in sides)
    common = [name for name in before if name in after]
    lost = None
    for start in range(0, len(common), _AT_ONCE):
        names = common[start : start + _AT_ONCE]
        try:
            first, second = computer.compute(sides, names, convention, values)
        except EvaluationError:
            return lost  # the outputs could be computed, but this evaluator does not return every tensor
        for name in names:
            row = compare(name, first[name], second[name], tolerance)
            node = after[name]
            title = f"'{name}', written by {node.op_type}" + (f" '{node.name}'" if node.name else "")
            if not row.compared:
                lost = lost or title
            elif not row.passed:
                if first[name].shape != second[name].shape:
                    return f"{title}: has shape {list(first[name].shape)} before, {list(second[name].shape)} after"
                return f"{title}: differs by {row.max_error:.3g}, with values up to {row.scale:.3g}"
    return lost


def _writers(graph: onnx.GraphProto) -> dict[str, onnx.NodeProto]:
    return {
        name: node
        for node in graph.node
        if not node.op_type.startswith(_WITHOUT_ONE_ARRAY)
        for name in node.output
        if name
    }
