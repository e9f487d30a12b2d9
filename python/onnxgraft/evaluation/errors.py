"""The error of models that cannot be evaluated."""

from __future__ import annotations

from onnxgraft.errors import HostError


class EvaluationError(HostError):
    """A model that cannot be lowered or computed; the message names the node."""
