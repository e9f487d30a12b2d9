"""Element types and shapes of a graph's tensors, quantized operators included.

onnx's own inference does not know `TesselQuant` and `TesselDequant`, nor that an INT8 `Conv` sums up in INT32.
"""

from onnxgraft.tensor_types.inference import Inferred, TensorTypes
from onnxgraft.tensor_types.kinds import FLOATING, Kind

__all__ = ["FLOATING", "Inferred", "Kind", "TensorTypes"]
