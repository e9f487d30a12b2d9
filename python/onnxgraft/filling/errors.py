"""What can go wrong while numbers are filled in."""

from __future__ import annotations

from onnxgraft.errors import HostError


class FillingError(HostError):
    """A place could not be given its real numbers; the message names it and says why."""
