"""Reports where a step changed the function of the model although nothing failed."""

from __future__ import annotations

from onnx import NodeProto

from onnxgraft.catalogue import Transformation
from onnxgraft.following import DoneStep
from onnxgraft.quant import DeleteConcatTransformation, ReplaceResizeQuantTransformation, SimplifyShapeV2Transformation


class RemarkOnFunction:
    """Runs after the transformations that change the function by definition.

    Args:
        finish: Whether `delete_concat` has been finished: then it keeps the function.
    """

    def __init__(self, *, finish: bool) -> None:
        self._finish = finish

    def wants(self, transformation: Transformation) -> bool:
        """It looks at the modes of the `Resize` nodes before the step."""
        return issubclass(transformation.cls, ReplaceResizeQuantTransformation)

    def follow(self, step: DoneStep) -> None:
        """Adds remarks."""
        cls = step.transformation.cls
        if issubclass(cls, DeleteConcatTransformation) and not self._finish:
            step.remarks.append("both branches have the whole weight: shapes do not fit")
        elif issubclass(cls, SimplifyShapeV2Transformation):
            step.remarks.append("-1 in the sizes of Resize means the input's own size")
        elif issubclass(cls, ReplaceResizeQuantTransformation):
            resizes = [node for splice in step.splices for node in splice.matched if node.op_type == "Resize"]
            others = [mode for mode in map(_mode, resizes) if mode != "nearest"]
            if others:
                names = " and ".join(sorted(set(others)))
                step.remarks.append(f"{len(others)} Resize of mode {names} became nearest: the function changes")


def _mode(resize: NodeProto) -> str:
    mode = next((entry.s for entry in resize.attribute if entry.name == "mode"), b"nearest")
    return mode.decode(errors="replace")
