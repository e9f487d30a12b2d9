"""The float form of a quantized operator, from which its numbers are computed."""

from __future__ import annotations

from collections.abc import Sequence
from dataclasses import dataclass, replace
from typing import TYPE_CHECKING, Any

import numpy as np
import numpy.typing as npt
import onnx

from onnxgraft.filling.activations import Activation
from onnxgraft.filling.errors import FillingError
from onnxgraft.filling.float_operators import float_operator
from onnxgraft.filling.operator_numbers import FloatOperator, OperatorNumbers, numbers_of
from onnxgraft.filling.operators import Quantizable
from onnxgraft.filling.plan import Plan
from onnxgraft.transform_utilities import get_init

if TYPE_CHECKING:
    from onnxgraft.calibration import WeightNumbers

Array = npt.NDArray[Any]


@dataclass(frozen=True)
class Origin:
    """The float form of a quantized operator.

    Attributes:
        label: Its type and name.
        output: Its output.
        operator: Its float weight and bias.
        activation: The parameters of the tensor that it reads.
        tensor: That tensor, in the float model.
        correction: The part subtracted from its bias, per output channel; None for nothing.
    """

    label: str
    output: str
    operator: FloatOperator
    activation: Activation
    tensor: str
    correction: Array | None = None

    def numbers(self) -> OperatorNumbers:
        """Its numbers, with the correction in the bias.

        Raises:
            FillingError: It has none; the message names it.
        """
        operator = self.operator
        if self.correction is not None:
            bias = np.zeros(1) if operator.bias is None else operator.bias
            operator = replace(operator, bias=bias - self.correction)
        try:
            return numbers_of(operator, self.activation)
        except ValueError as error:
            raise FillingError(f"{self.label} cannot be filled: {error}") from error


def origin_of(plan: Plan, graph: onnx.GraphProto, operator: Quantizable) -> Origin:
    """The form of an operator that is still float.

    Raises:
        FillingError: The tensor that it reads has no usable range; the message names the operator.
    """
    names = [operator.weight] if operator.bias is None else [operator.weight, operator.bias]
    arrays = get_init(graph, names)[0]
    given = plan.calibration.weights.get(operator.weight)
    rank = _output_rank(operator, arrays, plan)
    described = float_operator(
        operator.node, arrays[0], arrays[1] if operator.bias is not None else None, rank,
        None if given is None or not _stands_for(given, arrays[0]) else (given.values, given.scales, given.axis),
    )  # fmt: skip
    symmetric = plan.symmetric or not described.can_be_asymmetric or operator.output in plan.uncentred
    try:
        activation = plan.activation(graph, operator.node.input[0], symmetric=symmetric)
    except FillingError as error:
        raise FillingError(f"{operator.label} cannot be filled: {error}") from error
    correction = plan.corrections.get(operator.output)
    return Origin(operator.label, operator.output, described, activation, operator.node.input[0], correction)


def _stands_for(given: WeightNumbers, weight: Array) -> bool:
    """Whether INT8 numbers still belong to this weight: preparation may have folded something into it."""
    if given.values.shape != weight.shape:
        return False
    return float(np.abs(given.floats() - weight).mean()) <= float(given.scales.mean())


def _output_rank(operator: Quantizable, arrays: Sequence[Array], plan: Plan) -> int | None:
    """The rank of a matrix product after adding its bias; None if it is not known."""
    rank = plan.ranks.get(operator.node.input[0])
    return None if rank is None else max(rank, *(array.ndim for array in arrays))
