"""Real numbers in the places that the transformations draw, drop or shift.

`rewrite(model, ..., calibration=...)` runs the same transformations over the same graph. A `Filler` replaces their
random numbers by calibrated scales and offsets, INT8 weights, INT32 biases and dequantize scales.
"""

from onnxgraft.filling.errors import FillingError
from onnxgraft.filling.settings import Filling
from onnxgraft.report.filled_records import FilledOperator, FillingResult, LeftFloat

__all__ = ["FilledOperator", "Filling", "FillingError", "FillingResult", "LeftFloat"]
