"""The decisions before the first transformation runs: ranges, operators that stay float, corrections of biases."""

from __future__ import annotations

from collections.abc import Mapping
from dataclasses import dataclass, field
from typing import TYPE_CHECKING, Any

import numpy as np
import numpy.typing as npt
import onnx

from onnxgraft.filling.activations import Activation, activation_of
from onnxgraft.filling.errors import FillingError
from onnxgraft.transform_utilities import get_init

if TYPE_CHECKING:
    from onnxgraft.calibration import Calibration


@dataclass
class Plan:
    """Everything that is decided while the model is still float. Operators are named by the tensor that they write.

    Attributes:
        calibration: The ranges.
        symmetric: Whether all offsets are 0.
        left_float: The operators that are not quantized, and why.
        corrections: The part to subtract from an operator's bias, per output channel.
        uncentred: Operators whose input gets no offset: their padding is not written out.
        ranks: Ranks of the tensors for which they are known.
    """

    calibration: Calibration
    symmetric: bool = False
    left_float: Mapping[str, str] = field(default_factory=dict)
    corrections: Mapping[str, npt.NDArray[Any]] = field(default_factory=dict)
    uncentred: frozenset[str] = frozenset()
    ranks: Mapping[str, int] = field(default_factory=dict)

    def activation(self, graph: onnx.GraphProto, tensor: str, *, symmetric: bool) -> Activation:
        """The parameters of a quantize node that reads `tensor`.

        Raises:
            FillingError: There is no range for the tensor, or one that is not finite.
        """
        found = self.calibration.ranges.get(tensor)
        if found is not None:
            low, high = found.low, found.high
        elif any(tensor == one.name for one in graph.initializer):
            values = get_init(graph, (tensor,))[0][0]
            low, high = float(np.min(values, initial=0.0)), float(np.max(values, initial=0.0))
        else:
            raise FillingError(
                f"the calibration has no range for tensor '{tensor}'; calibrate this model with the same preparation"
            )
        try:
            return activation_of(low, high, symmetric=symmetric)
        except ValueError as error:
            raise FillingError(f"tensor '{tensor}': {error}") from error
