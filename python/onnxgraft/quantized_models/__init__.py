"""Models that another tool has quantized: read into the float graph, its calibration and its INT8 weights.

They mark quantization by pairs of QuantizeLinear and DequantizeLinear, or by operators that compute on integers
(QLinearConv and others). Both become a float graph without such nodes, and the numbers that they held.
"""

from onnxgraft.quantized_models.aligning import calibration_for
from onnxgraft.quantized_models.reading import is_quantized, read_quantized

__all__ = ["calibration_for", "is_quantized", "read_quantized"]
