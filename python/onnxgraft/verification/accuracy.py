"""How close a model is to another one, in decibels; as data.

Signal to quantization noise ratio of a tensor, over all elements of all samples, x before and y after:

    SQNR = 10 * log10(sum(x^2) / sum((x - y)^2)) dB
"""

from __future__ import annotations

import math
from dataclasses import dataclass, field


@dataclass(frozen=True)
class TensorAccuracy:
    """One tensor that both models have.

    Attributes:
        name: The tensor.
        writer: Operator and name of the node that computes it in the model after.
        sqnr: In dB; infinite if nothing differs, minus infinity if it cannot be compared (another shape, or not finite
            where the model before is), NaN if the model before has no finite element.
        exact: Whether all elements are equal.
        max_error: The largest difference of two elements.
        scale: The largest absolute value in the model before.
    """

    name: str
    writer: str
    sqnr: float
    exact: bool
    max_error: float
    scale: float


@dataclass(frozen=True)
class QuantizeNumbers:
    """One quantize node of the model after.

    Attributes:
        name: The node, or its output.
        tensor: Its input.
        scale: Quantized steps per unit.
        offset: The quantized value of 0.
        saturated: The share of elements that are cut off, 0 to 1.
    """

    name: str
    tensor: str
    scale: float
    offset: float
    saturated: float


@dataclass(frozen=True)
class SumNumbers:
    """One operator on INT8 values of the model after.

    Attributes:
        name: Operator and name.
        tensor: Its output.
        largest: The largest absolute value of its sums, bias included.
        bits: How many bits a signed integer needs for them.
    """

    name: str
    tensor: str
    largest: float
    bits: int


@dataclass(frozen=True)
class Sensitivity:
    """The effect of quantizing one operator alone on the outputs.

    Attributes:
        name: Operator and name.
        tensor: Its output.
        sqnr: Of the output that suffers most, in dB; infinite if none changes.
    """

    name: str
    tensor: str
    sqnr: float


@dataclass
class Accuracy:
    """The result of `measure`."""

    outputs: list[TensorAccuracy] = field(default_factory=list)
    wanted: float | None = None  # the least SQNR of each output, in dB
    samples: int = 0
    runner: str = ""
    tensors: list[TensorAccuracy] = field(default_factory=list)  # in computation order
    skipped: list[str] = field(default_factory=list)  # of the same name, but computed by another kind of operator
    quantize_nodes: list[QuantizeNumbers] = field(default_factory=list)
    sums: list[SumNumbers] = field(default_factory=list)
    sensitivities: list[Sensitivity] = field(default_factory=list)  # the most sensitive first
    notes: list[str] = field(default_factory=list)

    @property
    def compared(self) -> bool:
        """Whether each output could be compared."""
        return bool(self.outputs) and not any(math.isnan(row.sqnr) for row in self.outputs)

    @property
    def passed(self) -> bool:
        """Whether each output reaches the wanted SQNR."""
        least = -math.inf if self.wanted is None else self.wanted
        return (
            self.compared and not self.notes and all(row.sqnr > -math.inf and row.sqnr >= least for row in self.outputs)
        )

    @property
    def verdict(self) -> str:
        """The outcome in one sentence."""
        if not self.outputs:
            return "the models have no output in common"
        if not self.compared:
            return "nothing was compared in an output without any finite element"
        worst = min(self.outputs, key=lambda row: row.sqnr)
        found = f"{decibels(worst.sqnr)} at the output '{worst.name}'"
        if self.wanted is None:
            return f"{found}, over {self.samples} samples"
        relation = "at least" if self.passed else "not"
        return f"{found}, over {self.samples} samples: {relation} the required {self.wanted:g} dB"


def decibels(value: float) -> str:
    """A ratio as text."""
    if math.isnan(value):
        return "not compared"
    if math.isinf(value):
        return "equal" if value > 0 else "not comparable"
    return f"{value:.1f} dB"
