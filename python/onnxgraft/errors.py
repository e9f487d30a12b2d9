"""The errors that the host tool raises for what a user can put right. Each message is one line."""

from __future__ import annotations

from collections.abc import Sequence
from typing import TYPE_CHECKING

if TYPE_CHECKING:
    from onnxgraft.engine.report import NodeText, Report


class HostError(Exception):
    """Base of all of them."""


class ModelFileError(HostError):
    """A model, its external data or an output place that cannot be used."""


class ReportError(HostError):
    """A text that is not a report of this release."""


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


class RegistrationError(HostError):
    """A class that cannot be a transformation of the catalogue, or code of a user's that cannot be loaded."""


class UnknownNameError(HostError):
    """A name that nothing has. For the command line this is wrong usage."""


class UnknownTransformationError(UnknownNameError):
    """A short name that no transformation has."""

    def __init__(self, name: str, similar: Sequence[str]) -> None:
        hint = f"did you mean {' or '.join(similar)}?" if similar else "`onnxgraft list` shows the names"
        super().__init__(f"unknown transformation '{name}': {hint}")
