"""Real numbers for quantized models: the ranges that tensors of a float model take on a user's data.

`calibrate` runs the model over samples and returns a `Calibration`, a value that `rewrite` fills models with.
"""

from onnxgraft.calibration.calibration import Calibration, Range, WeightNumbers, merged
from onnxgraft.calibration.collecting import calibrate
from onnxgraft.calibration.data import Samples, open_data
from onnxgraft.calibration.errors import CalibrationError
from onnxgraft.calibration.fingerprinting import model_fingerprint
from onnxgraft.calibration.images import Images
from onnxgraft.calibration.running import ForwardRunner

__all__ = [
    "Calibration",
    "CalibrationError",
    "ForwardRunner",
    "Images",
    "Range",
    "Samples",
    "WeightNumbers",
    "calibrate",
    "merged",
    "model_fingerprint",
    "open_data",
]
