"""The error of a transformation that failed, with the known facts about the reason."""

from __future__ import annotations

from typing import TYPE_CHECKING

import onnx

from onnxgraft.catalogue import Transformation
from onnxgraft.errors import HostError
from onnxgraft.quant import AbstractPullUpTesselQuantTransformation
from onnxgraft.report.records import NodeText, Report

if TYPE_CHECKING:
    from onnxgraft.engine.recorder import Recorder
    from onnxgraft.engine.selection import Candidate


class TransformationError(HostError):
    """A transformation that failed on a graph; the graph is in its state before that transformation."""

    def __init__(
        self,
        message: str,
        *,
        transformation: str = "",
        pattern: tuple[str, ...] = (),
        nodes: tuple[NodeText, ...] = (),
        report: Report | None = None,
    ) -> None:
        """Keeps the known facts about the failure.

        Args:
            message: One line.
            transformation: Its short name.
            pattern: The pattern that was being replaced; empty if it failed before or between patterns.
            nodes: The nodes of the occurrence whose callback failed; empty if no callback was running.
            report: The report of the steps before.
        """
        super().__init__(message)
        self.transformation = transformation
        self.pattern = pattern
        self.nodes = nodes
        self.report = report


def transformation_error(
    candidate: Candidate, recorder: Recorder, raised: Exception, graph: onnx.GraphProto
) -> TransformationError:
    """The error of a run that raised: what failed, where and why."""
    failure = recorder.failure
    reason = " ".join(str(raised).split()) or "no reason given"
    place = candidate.name
    if failure is not None:
        place += f", pattern {list(failure.pattern)}"
    if failure is not None and failure.nodes:
        place += f", at {', '.join(node.label for node in failure.nodes)}"
    error = TransformationError(
        f"{place}: {type(raised).__name__}: {reason}{_bias_length(candidate.row, graph, raised)}",
        transformation=candidate.name,
        pattern=failure.pattern if failure else (),
        nodes=failure.nodes if failure else (),
    )
    error.__cause__ = raised
    return error


def _bias_length(row: Transformation, graph: onnx.GraphProto, raised: Exception) -> str:
    """What to do about a pull-up that failed on such a bias; empty for any other failure."""
    if not isinstance(raised, ValueError) or not issubclass(row.cls, AbstractPullUpTesselQuantTransformation):
        return ""
    sizes = {tensor.name: tensor.dims for tensor in graph.initializer}
    for node in graph.node:
        if node.op_type == "Conv" and len(node.input) == 3:
            weight, bias = (sizes.get(name) for name in node.input[1:])
            if weight and bias and f"({bias[0]},) ({weight[0]},)" in str(raised):  # as NumPy puts it
                return (
                    f" (a bias of {bias[0]} elements for {weight[0]} output channels: fuse_bn_quant leaves it so for "
                    "an odd number; --skip fuse_bn_quant leaves that transformation out, --keep-going this one)"
                )
    return ""
