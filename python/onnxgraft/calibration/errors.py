"""The error of a calibration that cannot be made, read or used."""

from __future__ import annotations

from onnxgraft.errors import HostError


class CalibrationError(HostError):
    """Data, ranges or a model that cannot be used for calibration; the message names which and what would be right."""
