"""The result of a comparison, as data; printed, it is a table."""

from __future__ import annotations

from dataclasses import dataclass, field
from typing import Literal

from onnxgraft.text_table import fitted, table
from onnxgraft.texts import one_line


@dataclass(frozen=True)
class OutputRow:
    """One output of both models.

    Attributes:
        name: The output.
        dtype: The element type that was compared; quantized values are floating-point numbers here.
        shape: Its shape in the model before.
        max_error: The largest difference of two elements over all runs; infinite if they cannot be compared.
        scale: The largest absolute value among the finite elements of both.
        relative_error: `max_error / scale`; 0 if nothing differs.
        passed: Whether that is within the tolerance.
        compared: Whether there was anything to compare. If both models give the same elements and none of them is
            finite, nothing was compared, and the row does not pass.
    """

    name: str
    dtype: str
    shape: tuple[int, ...]
    max_error: float
    scale: float
    relative_error: float
    passed: bool
    compared: bool = True

    @property
    def verdict(self) -> str:
        """One word for the result."""
        return "same" if self.passed else "DIFFERENT" if self.compared else "NOT COMPARED"


@dataclass
class Verification:
    """The result of `verify`."""

    rows: list[OutputRow] = field(default_factory=list)
    # The first tensor, in computation order, that differs, or else the first without any finite element.
    first_difference: str | None = None
    notes: list[str] = field(default_factory=list)
    passed: bool = False
    runner: Literal["onnxruntime", "onnx.reference"] = "onnx.reference"
    inputs: dict[str, str] = field(default_factory=dict)  # name -> "float32[1,3,64,64]"
    seed: int | None = 0  # None: the inputs were given
    runs: int = 1

    def __bool__(self) -> bool:
        return self.passed

    @property
    def differs(self) -> bool:
        """Whether a difference was found. If not, and it did not pass, an output has no finite element."""
        return not self.passed and (not self.rows or any(row.compared and not row.passed for row in self.rows))

    @property
    def verdict(self) -> str:
        """The outcome in one sentence."""
        if self.passed:
            return "the models agree"
        return "the models differ" if self.differs else "nothing was compared in an output without any finite element"

    def __str__(self) -> str:
        cells = [
            (
                row.name,
                row.dtype,
                f"[{','.join(map(str, row.shape))}]",
                *(f"{value:.3g}" for value in (row.max_error, row.scale, row.relative_error)),
                row.verdict,
            )
            for row in self.rows
        ]
        headings = ("Output", "Type", "Shape", "Difference", "Scale", "Relative", "")
        lines = [table(headings, cells, names=(0, 1, 2, 6), numbers=(3, 4, 5))]
        if self.first_difference is not None:
            what = "that differs" if self.differs else "without any finite element"
            lines.append(f"first tensor {what}: {self.first_difference}")
        lines += [f"note: {note}" for note in self.notes]
        lines.append(f"{self.verdict} (run by {self.runner})")
        return fitted("\n".join([lines[0], *map(one_line, lines[1:])]))
