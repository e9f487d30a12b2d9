"""The errors of filling in numbers."""

from __future__ import annotations

from onnxgraft.errors import HostError


class FillingError(HostError):
    """A place could not get its real numbers; the message names it and gives the reason."""
