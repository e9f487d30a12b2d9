"""The numbers that were filled in, as data for the report."""

from __future__ import annotations

from collections.abc import Iterable
from dataclasses import dataclass, field


@dataclass(frozen=True)
class FilledOperator:
    """One operator that was quantized with real numbers.

    Attributes:
        name: Operator type and name.
        output: Its output in the float model, which names it everywhere else.
        tensor: The tensor that its quantize node reads.
        scale: Quantized steps per unit of that tensor.
        offset: The quantized value of 0.
        widened: Output channels with a coarser scale, so that their bias fits INT32.
        corrected: Whether its bias was corrected by the operator's mean error.
    """

    name: str
    output: str
    tensor: str
    scale: float
    offset: int
    widened: int = 0
    corrected: bool = False


@dataclass(frozen=True)
class LeftFloat:
    """One operator that was not quantized.

    Attributes:
        name: Operator type and name.
        output: Its output.
        reason: Why.
    """

    name: str
    output: str
    reason: str


@dataclass
class FillingResult:
    """The numbers that one run filled in.

    Attributes:
        method: The method that chose the ranges.
        samples: The number of samples they come from.
        operators: The quantized operators, in the order in which they were quantized.
        left_float: The operators that were left float, and why.
        notes: Other changes of numbers, as sentences.
        warnings: Changes of numbers that should not have happened.
        decibels: Signal to noise on the data for each choice that was tried, if data was given.
    """

    method: str = ""
    samples: int = 0
    operators: list[FilledOperator] = field(default_factory=list)
    left_float: list[LeftFloat] = field(default_factory=list)
    notes: list[str] = field(default_factory=list)
    warnings: list[str] = field(default_factory=list)
    decibels: dict[str, float] = field(default_factory=dict)

    def lines(self) -> Iterable[str]:
        """The result as text, a line each."""
        yield f"filled: {len(self.operators)} operators, from the {self.method} ranges of {self.samples} samples"
        if widened := [operator for operator in self.operators if operator.widened]:
            count = sum(operator.widened for operator in widened)
            names = ", ".join(f"{operator.name} ({operator.widened})" for operator in widened)
            yield f"coarser scales, so that the bias fits: {count} channels of {names}"
        for left in self.left_float:
            yield f"left float: {left.name}: {left.reason}"
        for tried, value in self.decibels.items():
            yield f"{tried}: {value:.1f} dB on the data"
        yield from self.notes
