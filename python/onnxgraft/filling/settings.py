"""How a run is to be filled."""

from __future__ import annotations

from collections.abc import Iterable
from dataclasses import dataclass
from typing import TYPE_CHECKING

if TYPE_CHECKING:
    from onnxgraft.calibration import Calibration


@dataclass(frozen=True)
class Filling:
    """What `rewrite` fills a model with.

    Attributes:
        calibration: The ranges of the tensors.
        symmetric: Whether all offsets are 0. Otherwise a tensor gets an offset wherever that is exact: at every
            `Conv` but one whose padding cannot be written out, and at a `Gemm` or `MatMul` with a bias along its
            output channels.
        leave: Operators that stay float, by name or by the name of the tensor that they write.
    """

    calibration: Calibration
    symmetric: bool = False
    leave: Iterable[str] = ()
