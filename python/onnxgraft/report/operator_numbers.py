"""The numbers of one quantized operator, as data for the report."""

from __future__ import annotations

from dataclasses import dataclass


@dataclass(frozen=True)
class OperatorNumbers:
    """The numbers that an operator on INT8 values computes with.

    Attributes:
        name: Operator type and name.
        output: Its output.
        scale: Of the quantize node that it reads, directly or through operators that pass values on: quantized steps
            per unit. With several such nodes, the first one's.
        offset: The quantized value of 0 of that node.
        low: The least value that the node does not cut off.
        high: The greatest one.
        bits: How many bits a signed integer needs for the sums, whatever the inputs are; 0 if that is not known.
        saturated: The share of the calibrated values that the node cuts off, 0 to 1; None if that is not known.
        weight: The INT8 weight.
    """

    name: str
    output: str
    scale: float
    offset: float
    low: float
    high: float
    bits: int
    saturated: float | None = None
    weight: str = ""
