"""`Conv` without `group` -> `Conv` with `group` 1, the default: `change_gap_conv` reads the attribute."""

from __future__ import annotations

from onnx import helper

from onnxgraft.preparation.workpiece import Workpiece, is_standard


def write_conv_group(workpiece: Workpiece) -> int:
    """Writes the default out."""
    changed = 0
    for node in workpiece.graph.node:
        if is_standard(node, "Conv") and all(attribute.name != "group" for attribute in node.attribute):
            node.attribute.append(helper.make_attribute("group", 1))
            changed += 1
    return changed
