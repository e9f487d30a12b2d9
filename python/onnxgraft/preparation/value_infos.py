"""Tensors without an entry in `value_info` -> with one, as far as shape inference goes."""

from __future__ import annotations

from onnx import ValueInfoProto

from onnxgraft.preparation.workpiece import Workpiece


def infer_shapes(workpiece: Workpiece) -> int:
    """Adds entries, and completes those without a shape. It does not overrule given information."""
    graph = workpiece.graph
    inner = {name for node in graph.node for name in node.output} - workpiece.defined_names()
    inner -= {value.name for value in graph.output}
    known = {value.name: value for value in graph.value_info}
    changed = 0
    for value in workpiece.inferred():
        if value.name not in inner or not _has_shape(value):
            continue
        entry = known.get(value.name)
        if entry is None:
            graph.value_info.append(value)
            changed += 1
        elif not _has_shape(entry):
            entry.type.CopyFrom(value.type)
            changed += 1
    return changed


def _has_shape(value: ValueInfoProto) -> bool:
    return value.type.tensor_type.HasField("shape") and value.type.tensor_type.elem_type != 0
