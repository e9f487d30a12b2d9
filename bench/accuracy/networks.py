"""The trained models, which come in pinned wheels, and the treatment of each."""

from __future__ import annotations

from dataclasses import dataclass
from pathlib import Path

FOLDER = Path(__file__).resolve().parents[2] / "build/accuracy"
WHEELS = FOLDER / "wheels"

_QUANTIZE = ("quant_conv", "quant_gemm", "quant_matmul")
_MERGE = ("replace_quant", *(f"replace_concat_quant_v{number}" for number in range(1, 9)), "replace_quant_v2")

QUANTIZE = list(_QUANTIZE)
WHOLE = [*_QUANTIZE, *_MERGE, "replace_resize_quant"]


@dataclass(frozen=True)
class Network:
    """One model.

    Attributes:
        name: The prefix of its files.
        title: Its name on the page.
        file: Its path in the unpacked wheel.
        outputs: The outputs that are compared; empty for all.
    """

    name: str
    title: str
    file: str
    outputs: tuple[str, ...] = ()

    @property
    def path(self) -> Path:
        """The model file."""
        return WHEELS / self.file

    def data(self, part: str) -> Path:
        """The folder of the model's inputs: `calibration` or `test`."""
        return FOLDER / "data" / self.name / part

    def made(self, variant: str) -> Path:
        """The file of a model made from it, in standard operators."""
        return FOLDER / "models" / f"{self.name}_{variant}.onnx"


_OCR = "rapidocr_onnxruntime/models"
NETWORKS = (
    Network("det", "text detector (PP-OCRv4)", f"{_OCR}/ch_PP-OCRv4_det_infer.onnx"),
    Network("rec", "text recognizer (PP-OCRv4)", f"{_OCR}/ch_PP-OCRv4_rec_infer.onnx"),
    Network("cls", "text angle (MobileNetV3)", f"{_OCR}/ch_ppocr_mobile_v2.0_cls_infer.onnx"),
    Network("vad", "voice detector (Silero)", "silero_vad/data/silero_vad_16k_op15.onnx", ("output",)),
)
BY_NAME = {network.name: network for network in NETWORKS}
OCR = ("det", "rec", "cls")
