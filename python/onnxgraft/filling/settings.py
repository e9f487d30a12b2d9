"""The settings for filling a run."""

from __future__ import annotations

from collections.abc import Iterable
from dataclasses import dataclass
from typing import TYPE_CHECKING

if TYPE_CHECKING:
    from onnxgraft.calibration import Calibration
    from onnxgraft.samples import Samples


@dataclass(frozen=True)
class Filling:
    """The numbers and settings with which `rewrite` fills a model.

    Attributes:
        calibration: The ranges of the tensors.
        symmetric: Whether all offsets are 0. Otherwise a tensor gets an offset wherever that is exact: at every `Conv`
            except one whose padding cannot be written out, and at a `Gemm` or `MatMul` with a bias along its output
            channels.
        leave: Operators that stay float, by name or by the name of the tensor that they write.
        float_share: The share of the multiply-adds, from 0 to 1, that may stay float, for those operators whose
            quantization costs most. Needs `data`.
        bias_correction: Whether biases are corrected by the mean error of their operator. None: if `data` is given and
            the correction brings the outputs nearer to the float ones on it.
        data: Samples to test choices on; the calibration samples are suitable.
        equalize: Whether channels that a depthwise `Conv` reads are brought to one range, if float weights or constants
            before it can compensate. The function of the float model stays the same.
    """

    calibration: Calibration
    symmetric: bool = False
    leave: Iterable[str] = ()
    float_share: float = 0.0
    bias_correction: bool | None = None
    data: Samples | None = None
    equalize: bool = True

    def __post_init__(self) -> None:
        if not 0.0 <= self.float_share < 1.0:
            raise ValueError(f"float_share must be at least 0 and below 1, not {self.float_share}")
        if self.data is None and self.float_share:
            raise ValueError("float_share tests operators on samples: it needs `data`")
        if self.data is None and self.bias_correction:
            raise ValueError("bias_correction tests biases on samples: it needs `data`")
