"""The error of a transformation that failed."""

from __future__ import annotations

from onnxgraft.errors import HostError
from onnxgraft.report.records import NodeText, Report


class TransformationError(HostError):
    """A transformation that failed on a graph; the graph is as it was before that transformation began."""

    def __init__(
        self,
        message: str,
        *,
        transformation: str = "",
        pattern: tuple[str, ...] = (),
        nodes: tuple[NodeText, ...] = (),
        report: Report | None = None,
    ) -> None:
        """Keeps what is known of the failure.

        Args:
            message: One line.
            transformation: Its short name.
            pattern: The pattern that was being replaced; empty if it failed before or between patterns.
            nodes: The nodes of the occurrence whose callback failed; empty if none was being asked about.
            report: What was done before.
        """
        super().__init__(message)
        self.transformation = transformation
        self.pattern = pattern
        self.nodes = nodes
        self.report = report
