"""The difference of two models as data: texts and numbers, never nodes or tensors."""

from __future__ import annotations

from dataclasses import dataclass, field

from onnxgraft.report.network import GraphChange
from onnxgraft.report.records import NodeText
from onnxgraft.report.report_json import NOT_IN_JSON
from onnxgraft.texts import preformatted


@dataclass(frozen=True)
class ValueChange:
    """An initializer, input or output that differs between the sides; None if it does not exist."""

    name: str
    before: str | None  # "float32[64,3,3,3]"
    after: str | None

    def __str__(self) -> str:
        return f"'{self.name}': {self.before or 'none'} -> {self.after or 'none'}"


@dataclass(frozen=True)
class NodeChange:
    """A node that both models have, with other attributes, inputs or outputs."""

    before: NodeText
    after: NodeText
    what: tuple[str, ...]  # one text per difference


@dataclass(frozen=True)
class RegionSide:
    """A region in one of the models."""

    nodes: tuple[NodeText, ...] = ()  # changed ones included, in graph order
    neighbours: tuple[NodeText, ...] = ()  # unchanged nodes that write an input of the region, or read an output of it
    shapes: dict[str, str] = field(default_factory=dict)  # tensor -> "float32[1,64,56,56]", if known
    constants: frozenset[str] = frozenset()  # the initializers among the tensors


@dataclass(frozen=True)
class Region:
    """Connected nodes that differ."""

    before: RegionSide
    after: RegionSide
    changes: tuple[NodeChange, ...] = ()

    @property
    def removed(self) -> tuple[NodeText, ...]:
        """Nodes that only the model before has."""
        kept = {change.before.index for change in self.changes}
        return tuple(node for node in self.before.nodes if node.index not in kept)

    @property
    def added(self) -> tuple[NodeText, ...]:
        """Nodes that only the model after has."""
        kept = {change.after.index for change in self.changes}
        return tuple(node for node in self.after.nodes if node.index not in kept)


@dataclass(repr=False)
class GraphDiff:
    """The result of `diff`. Printed, it is a summary."""

    nodes_before: int = 0
    nodes_after: int = 0
    unchanged: int = 0  # nodes, without `Constant` nodes
    operators: dict[str, tuple[int, int]] = field(default_factory=dict)  # those whose count changed: before, after
    regions: list[Region] = field(default_factory=list)
    initializers: list[ValueChange] = field(default_factory=list)
    inputs: list[ValueChange] = field(default_factory=list)
    outputs: list[ValueChange] = field(default_factory=list)
    model: list[str] = field(default_factory=list)  # operator sets, IR version, functions, `Constant` nodes
    # All nodes of both models, for the map of the page; the JSON text does not contain them.
    change: GraphChange | None = field(default=None, compare=False, metadata={NOT_IN_JSON: True})

    @property
    def is_empty(self) -> bool:
        """Whether the models are the same except for names of tensors and nodes, and the order of nodes."""
        return not (self.regions or self.initializers or self.inputs or self.outputs or self.model)

    def to_html(self) -> str:
        """The difference as one self-contained page."""
        from onnxgraft.comparison.diff_page import diff_page  # noqa: PLC0415

        return diff_page(self)

    def __bool__(self) -> bool:
        return not self.is_empty

    def __repr__(self) -> str:
        changed = f"{len(self.regions)} regions, {len(self.initializers)} initializers" if self else "no difference"
        return f"<GraphDiff: {self.nodes_before} -> {self.nodes_after} nodes, {changed}>"

    def _repr_html_(self) -> str:
        return preformatted(str(self))

    def __str__(self) -> str:
        from onnxgraft.comparison.summary import summary  # noqa: PLC0415

        return summary(self)
