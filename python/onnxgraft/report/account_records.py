"""Which operators of a model compute on INT8, and why the others do not, as data."""

from __future__ import annotations

from collections import Counter
from dataclasses import dataclass, field

# Operators that are counted. An LSTM and similar ones are listed if they stay in float, which they always do.
COUNTED = ("Conv", "ConvTranspose", "Gemm", "MatMul")
RECURRENT = ("LSTM", "GRU", "RNN")


@dataclass(frozen=True)
class FloatOperator:
    """One operator that stayed in float."""

    op_type: str
    name: str
    output: str  # the tensor that it writes
    place: str  # "" for the graph itself, otherwise the nested graph or function
    reason: str  # identifier, such as "computed_weight"
    text: str  # the reason as a sentence, with names
    macs: int | None = None  # multiply-adds; None if shapes are not known

    @property
    def label(self) -> str:
        """Operator and name, or its output if it has no name."""
        return f"{self.op_type} '{self.name}'" if self.name else f"{self.op_type} (writes '{self.output}')"


@dataclass
class OperatorCount:
    """Of one operator: nodes, multiply-adds and weight bytes on INT8 and in float.

    Nodes whose shapes are not known count in `unknown_macs` and in neither sum of multiply-adds.
    """

    int8: int = 0
    float: int = 0
    int8_macs: int = 0
    float_macs: int = 0
    unknown_macs: int = 0
    int8_bytes: int = 0
    float_bytes: int = 0


@dataclass
class Account:
    """The operators that take most of the time in a quantized network.

    Attributes:
        operators: By operator type, those of the graph itself.
        left: The operators in float, including those in nested graphs and functions.
    """

    operators: dict[str, OperatorCount] = field(default_factory=dict)
    left: list[FloatOperator] = field(default_factory=list)

    @property
    def reasons(self) -> dict[str, int]:
        """How many operators stayed in float for each reason, the most frequent first."""
        return dict(Counter(one.reason for one in self.left).most_common())

    @property
    def share(self) -> float | None:
        """The share of the known multiply-adds that run on INT8; None if there are none."""
        done = sum(count.int8_macs for count in self.operators.values())
        total = done + sum(count.float_macs for count in self.operators.values())
        return done / total if total else None

    def __str__(self) -> str:
        if not self.operators and not self.left:
            return "no Conv, ConvTranspose, Gemm or MatMul"
        counts = ", ".join(f"{one.int8} of {one.int8 + one.float} {op}" for op, one in self.operators.items())
        parts = [f"INT8: {counts or 'none in the graph itself'}"]
        if self.share is not None:
            unknown = sum(one.unknown_macs for one in self.operators.values())
            rest = f" (unknown for {unknown})" if unknown else ""
            parts[0] += f", {100 * self.share:.1f} % of the multiply-adds{rest}"
        if self.left:
            parts.append(f"{len(self.left)} left: --report or `explain --node` gives the reasons")
        return "; ".join(parts)
