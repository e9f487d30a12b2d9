"""onnxruntime's own quantization, on the same data."""

from __future__ import annotations

import importlib
from typing import Any

import onnx
import onnx.version_converter

from bench.accuracy.networks import Network
from onnxgraft.samples import open_data

_FIRST_WITH_AXIS = 13
_OPERATORS = ["Conv", "Gemm", "MatMul"]
# The settings of `quantize_static` beyond its defaults; all with pairs of QuantizeLinear and DequantizeLinear.
VARIANTS: dict[str, dict[str, Any]] = {
    "ort_same": {"per_channel": True, "op_types_to_quantize": _OPERATORS},
    "ort_tensor": {"per_channel": False, "op_types_to_quantize": _OPERATORS},
    "ort_percentile": {"per_channel": True, "op_types_to_quantize": _OPERATORS, "calibrate": "Percentile"},
    "ort_entropy": {"per_channel": True, "op_types_to_quantize": _OPERATORS, "calibrate": "Entropy"},
    "ort_all": {"per_channel": True},
    "ort_symmetric": {
        "per_channel": True,
        "op_types_to_quantize": _OPERATORS,
        "activation": "QInt8",
        "extra_options": {"ActivationSymmetric": True},
    },
}


def quantize(network: Network, variant: str) -> dict[str, Any]:
    """One quantized model, or the reason why there is none."""
    tool: Any = importlib.import_module("onnxruntime.quantization")
    shapes: Any = importlib.import_module("onnxruntime.quantization.shape_inference")
    settings = dict(VARIANTS[variant])
    activation = getattr(tool.QuantType, settings.pop("activation", "QUInt8"))
    method = getattr(tool.CalibrationMethod, settings.pop("calibrate", "MinMax"))
    ready = network.made("ort_ready")
    if not ready.exists():
        model = onnx.load(network.path)
        if model.opset_import[0].version < _FIRST_WITH_AXIS:  # otherwise its own result does not load
            model = onnx.version_converter.convert_version(model, _FIRST_WITH_AXIS)
        onnx.save(model, ready)
        shapes.quant_pre_process(str(ready), str(ready), skip_symbolic_shape=True)
    reader = _Reader(network)
    try:
        tool.quantize_static(
            str(ready),
            str(network.made(variant)),
            reader,
            quant_format=tool.QuantFormat.QDQ,
            activation_type=activation,
            calibrate_method=method,
            weight_type=tool.QuantType.QInt8,
            **settings,
        )
    except Exception as error:
        return {"failed": f"{type(error).__name__}: {' '.join(str(error).split())[:200]}"}
    return {}


class _Reader:
    """Samples in the form that onnxruntime expects."""

    def __init__(self, network: Network) -> None:
        self._samples = iter(open_data(network.data("calibration"), onnx.load(network.path)))

    def get_next(self) -> Any:
        return next(self._samples, None)
