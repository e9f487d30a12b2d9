"""`Identity` -> its readers read what it reads."""

from __future__ import annotations

from onnxgraft.preparation.redirecting import bypass
from onnxgraft.preparation.workpiece import Workpiece, is_standard


def resolve_identities(workpiece: Workpiece) -> int:
    """Redirects the readers; the node stays where the graph returns its output or a nested body reads it."""
    return bypass(
        workpiece,
        {
            node.output[0]: node.input[0]
            for node in workpiece.graph.node
            if is_standard(node, "Identity") and len(node.input) == 1 and len(node.output) == 1
            if node.input[0] and node.output[0]
        },
    )
