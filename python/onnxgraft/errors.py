"""The errors that the host tool raises for what a user can put right. Each message is one line."""

from __future__ import annotations

from collections.abc import Sequence


class HostError(Exception):
    """Base of all of them."""


class ModelFileError(HostError):
    """A model, its external data or an output place that cannot be used."""


class TransformationError(HostError):
    """A transformation that failed on a graph."""


class UnknownTransformationError(HostError):
    """A short name that no transformation has."""

    def __init__(self, name: str, similar: Sequence[str]) -> None:
        hint = f"did you mean {' or '.join(similar)}?" if similar else "`onnxgraft list` shows the names"
        super().__init__(f"unknown transformation '{name}': {hint}")
