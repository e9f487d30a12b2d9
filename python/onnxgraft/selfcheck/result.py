"""The findings of a self-test."""

from __future__ import annotations

from dataclasses import dataclass, field

from onnx import GraphProto


class SelfCheckError(AssertionError):
    """A self-test that did not pass; the message holds every finding with its graph."""


@dataclass
class CheckResult:
    """Findings are faults, each with the smallest graph that shows it; notes are worth knowing.

    `counterexamples` holds those graphs, one per finding; None if a finding is not about one graph.
    """

    name: str
    graphs: int = 0
    found: int = 0
    accepted: int = 0
    refused: int = 0
    raised: int = 0
    findings: list[str] = field(default_factory=list)
    counterexamples: list[GraphProto | None] = field(default_factory=list)
    notes: list[str] = field(default_factory=list)

    @property
    def passed(self) -> bool:
        """Whether there is no finding."""
        return not self.findings

    def add(self, finding: str, graph: GraphProto | None = None) -> None:
        """Adds a finding."""
        self.findings.append(finding)
        self.counterexamples.append(graph)

    def raise_if_failed(self) -> None:
        """Raises SelfCheckError with the whole text if there are findings."""
        if self.findings:
            raise SelfCheckError(str(self))

    def __str__(self) -> str:
        verdict = "passed" if self.passed else f"{len(self.findings)} finding{'s'[: len(self.findings) != 1]}"
        head = (
            f"{self.name}: {verdict}; {self.graphs} graphs, {self.found} occurrences, {self.accepted} replaced, "
            f"{self.refused} refused, {self.raised} exceptions"
        )
        return "\n".join([head, *(f"note: {note}" for note in self.notes), *self.findings])
