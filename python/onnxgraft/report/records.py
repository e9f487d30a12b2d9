"""The record of a run of `rewrite`, as data: texts and numbers, never nodes or tensors.

A report outlives its model: holding a node would keep its whole graph in memory.
"""

from __future__ import annotations

from collections.abc import Iterable, Mapping
from dataclasses import dataclass, field
from typing import Any

import onnx

from onnxgraft.report import report_json
from onnxgraft.report.account_records import Account
from onnxgraft.report.filled_records import FillingResult
from onnxgraft.report.lazy import Lazy
from onnxgraft.report.network import GraphChange
from onnxgraft.report.node_texts import Kept, TensorKind, describe, keep, shape_text
from onnxgraft.report.operator_numbers import OperatorNumbers
from onnxgraft.report.report_json import NOT_IN_JSON
from onnxgraft.texts import one_line, preformatted

# Increased whenever a reader of the previous version would misread the JSON text.
SCHEMA_VERSION = 2
# Of each tensor of an occurrence, among its neighbours: thousands of nodes may read one tensor.
MOST_READERS = 12


@dataclass(frozen=True)
class NodeText(Lazy):
    """A described node."""

    index: int | None
    op_type: str
    domain: str
    name: str
    inputs: tuple[str, ...]
    outputs: tuple[str, ...]
    # A short text for each; a large tensor is "float32[64,3,3,3]".
    attributes: dict[str, str] = field(default_factory=dict)

    @classmethod
    def of(cls, node: onnx.NodeProto, index: int | None = None) -> NodeText:
        """The node as it is now; `index` is its position in the graph."""
        return cls.later(describe, (keep(node), index))

    @property
    def label(self) -> str:
        """Operator and name, or its output if it has no name."""
        name = f"'{self.name}'" if self.name else f"(writes '{', '.join(self.outputs)}')"
        return f"{self.op_type} {name}"

    def __str__(self) -> str:
        name = f" '{self.name}'" if self.name else ""
        return f"{self.op_type}{name} ({', '.join(self.inputs)} -> {', '.join(self.outputs)})"


@dataclass(frozen=True)
class Occurrence(Lazy):
    """One place where a pattern was found."""

    accepted: bool
    reason: str | None = None  # why it was refused, if the callback gave a reason
    before: tuple[NodeText, ...] = field(default_factory=tuple)  # the matched nodes, in the order of the pattern
    after: tuple[NodeText, ...] = field(default_factory=tuple)  # those in their place, in the replacement's order
    links: dict[str, str] = field(default_factory=dict)  # pattern id -> tensor
    # Producers, and the first readers of each tensor (`MOST_READERS`), if requested.
    neighbours: tuple[NodeText, ...] = field(default_factory=tuple)
    shapes: dict[str, str] = field(default_factory=dict)  # tensor -> "float32[1,64,56,56]", if known
    done: bool = False  # refused because the operator is INT8 already: nothing is left to do there

    @classmethod
    def of(
        cls,
        *,
        accepted: bool,
        reason: str | None,
        done: bool,
        before: Iterable[Kept],
        after: Iterable[tuple[Kept, int]],
        links: Mapping[str, str],
        neighbours: tuple[NodeText, ...],
        kinds: Mapping[str, TensorKind],
    ) -> Occurrence:
        """The occurrence with nodes that were kept; described on first access."""
        rest = (before, after, dict(links), neighbours, kinds)
        return cls.later(_occurrence_fields, rest, accepted=accepted, reason=reason, done=done)


def _occurrence_fields(
    before: Iterable[Kept],
    after: Iterable[tuple[Kept, int]],
    links: dict[str, str],
    neighbours: tuple[NodeText, ...],
    kinds: Mapping[str, TensorKind],
) -> dict[str, Any]:
    return {
        "before": tuple(NodeText(**describe(node, None)) for node in before),
        "after": tuple(NodeText(**describe(node, index)) for node, index in after),
        "links": links,
        "neighbours": neighbours,
        "shapes": {name: shape_text(kind) for name, kind in kinds.items()},
    }


@dataclass
class PatternResult:
    """The result of one (pattern, replacement) pair in one step."""

    pattern: tuple[str, ...]
    replacement: tuple[str, ...]
    found: int = 0
    replaced: int = 0
    refused: int = 0
    seconds: float = 0.0
    occurrences: list[Occurrence] = field(default_factory=list)
    nearest_miss: str | None = None  # what came closest, if it did not match
    done: int = 0  # declined because they are INT8 already; not counted as refused
    reasons: dict[str, int] = field(default_factory=dict)  # of the refusals, without names -> how often


@dataclass
class Step:
    """One transformation, run once over the graph."""

    transformation: str
    class_name: str
    round: int
    nodes_before: int
    nodes_after: int
    seconds: float = 0.0
    patterns: list[PatternResult] = field(default_factory=list)
    random: bool = False  # it draws weights or scales at random, which changes what the model computes
    error: str | None = None  # why it failed; the graph is as before the step then
    undone: str | None = None  # why it was undone without a failure; the graph is as before the step then
    finished: int = 0  # places that were completed after the transformation had replaced them
    remarks: list[str] = field(default_factory=list)  # other remarks on the result

    @property
    def found(self) -> int:
        """Occurrences of all patterns."""
        return sum(pattern.found for pattern in self.patterns)

    @property
    def replaced(self) -> int:
        """Occurrences that were replaced; none if the step failed or was undone."""
        return (
            0
            if self.error is not None or self.undone is not None
            else sum(pattern.replaced for pattern in self.patterns)
        )

    @property
    def refused(self) -> int:
        """Occurrences that the callback refused, without those that were done already."""
        return sum(pattern.refused for pattern in self.patterns)

    @property
    def done(self) -> int:
        """Occurrences whose operator is INT8 already."""
        return sum(pattern.done for pattern in self.patterns)


@dataclass(frozen=True)
class PreparationStep:
    """One step of the preparation."""

    name: str
    changed: int  # places
    seconds: float = 0.0


@dataclass(repr=False)
class Report:
    """The record of a whole run. Printed, it is a table."""

    model: str | None = None
    seed: int | None = None
    prepared: list[PreparationStep] = field(default_factory=list)
    steps: list[Step] = field(default_factory=list)
    rounds: int = 0
    stable: bool | None = None  # None: only one round was requested
    warnings: list[str] = field(default_factory=list)
    version: str = ""  # of onnx-graft
    account: Account | None = None  # which operators are INT8 now, and why the others are not
    filled: FillingResult | None = None  # the numbers used; None: those that the transformations draw
    numbers: list[OperatorNumbers] = field(default_factory=list)  # final numbers of the quantized operators
    # The graph before and after, for the map of the page; the JSON text does not contain it.
    change: GraphChange | None = field(default=None, compare=False, metadata={NOT_IN_JSON: True})

    @property
    def replaced(self) -> int:
        """Occurrences replaced by all steps."""
        return sum(step.replaced for step in self.steps)

    @property
    def finished(self) -> int:
        """Places completed in all steps."""
        return sum(step.finished for step in self.steps)

    @property
    def refused(self) -> int:
        """Occurrences refused in all steps."""
        return sum(step.refused for step in self.steps)

    def to_dict(self) -> dict[str, Any]:
        """The report as plain dicts, lists, strings and numbers, with "schema_version"."""
        return {"schema_version": SCHEMA_VERSION, **report_json.to_plain(self)}

    def to_json(self) -> str:
        """The report as JSON text, which `from_json` reads."""
        return report_json.dumps(self.to_dict())

    @classmethod
    def from_json(cls, text: str) -> Report:
        """Reads the output of `to_json`.

        Raises:
            ReportError: The text is not a report, or one of another schema version.
        """
        return report_json.loads(text, cls, SCHEMA_VERSION)

    def __repr__(self) -> str:
        name = f" of '{one_line(self.model)}'" if self.model else ""
        return f"<Report{name}: {len(self.steps)} steps, {self.replaced} replaced, {self.refused} refused>"

    def _repr_html_(self) -> str:
        return preformatted(str(self))

    def __str__(self) -> str:
        from onnxgraft.report import report_table  # noqa: PLC0415

        return report_table.text(self)
