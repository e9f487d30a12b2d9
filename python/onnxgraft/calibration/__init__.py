"""Real numbers for quantized models: the ranges that tensors of a float model take on a user's data.

`calibrate` runs the model over samples and returns a `Calibration`, a value that `rewrite` fills models with.
"""

from onnxgraft.calibration.calibration import Calibration, Equalized, Range, WeightNumbers, merged, read_calibration
from onnxgraft.calibration.collecting import calibrate
from onnxgraft.calibration.fingerprinting import model_fingerprint
from onnxgraft.errors import CalibrationError

__all__ = [
    "Calibration",
    "CalibrationError",
    "Equalized",
    "Range",
    "WeightNumbers",
    "calibrate",
    "merged",
    "model_fingerprint",
    "read_calibration",
]
