"""The error of models that cannot be compared at all."""

from __future__ import annotations

from onnxgraft.errors import HostError


class VerificationError(HostError):
    """No input can be made for a model, or a wrong argument; the message names the input and what would be right."""
