"""Real numbers in the places that the transformations draw, drop or shift.

`rewrite(model, ..., calibration=...)` runs the same transformations over the same graph; a `Filler` beside them puts
calibrated scales and offsets, INT8 weights, INT32 biases and dequantize scales where random ones would have gone.
"""

from onnxgraft.filling.errors import FillingError
from onnxgraft.filling.settings import Filling
from onnxgraft.report.filled_records import FilledOperator, FillingResult, LeftFloat

__all__ = ["FilledOperator", "Filling", "FillingError", "FillingResult", "LeftFloat"]
