"""The answers of `explain` for single nodes, as data."""

from __future__ import annotations

from dataclasses import dataclass

from onnxgraft.texts import preformatted

# Outcomes of a node in one place of one pattern; those of the first group fit, and come before the misses.
OUTCOMES = ("replaced", "refused", "done", "taken", "fits", "miss")


@dataclass(frozen=True)
class NodeAnswer:
    """How one node matches as one node of one pattern.

    Attributes:
        transformation: Short name of the transformation.
        pattern_index: Which of its patterns, from 0.
        pattern: The strings of the pattern.
        pattern_node: Which node of the pattern it would be, from 0.
        outcome: "replaced"; "refused" by the transformation; "done", declined because it is INT8 already; "taken" by
            another occurrence; "fits" if nothing ran, or the run no longer reached it; "miss" if it does not fit.
        matched: Pattern nodes that matched, starting at the node; all of them unless it is a miss.
        of: Nodes of the pattern.
        occurrence: Indices in graph.node of the nodes that fit, in the order of the pattern; empty for a miss.
        reason: Identifier of what failed, such as "not_initializer"; None unless it is a miss.
        failed_pattern_node: Number of the pattern node that could not be matched, or None.
        other: Index of the node that was tried for that one, or None.
        input: Input position, if the reason has one.
        tensor: The tensor concerned, if the reason has one.
        reader: Index of another node that reads the tensor, or None.
        text: All of it in a sentence.
        hint: What it means or what would help, if that is certain.
    """

    transformation: str
    pattern_index: int
    pattern: tuple[str, ...]
    pattern_node: int
    outcome: str
    matched: int
    of: int
    text: str
    occurrence: tuple[int, ...] = ()
    reason: str | None = None
    failed_pattern_node: int | None = None
    other: int | None = None
    input: int | None = None
    tensor: str | None = None
    reader: int | None = None
    hint: str | None = None

    def __str__(self) -> str:
        place = f"{self.transformation}, pattern {self.pattern_index}, node {self.pattern_node} of it"
        return f"{place}: {self.text}" + (f". Hint: {self.hint}" if self.hint else "")


@dataclass(frozen=True)
class NodeExplanation:
    """How patterns match one node.

    Attributes:
        node: Its index in graph.node.
        name: Its name, which may be empty.
        op_type: Its operator.
        label: Operator and name, or its output if it has no name.
        in_float: Why no quantizing transformation can take it, if one was asked about and the reason is the node's own;
            otherwise None.
        answers: The nearest first; one for each place of its operator in a pattern, up to the requested number.
        left_out: How many more answers there are.
    """

    node: int
    name: str
    op_type: str
    label: str
    in_float: str | None
    answers: tuple[NodeAnswer, ...]
    left_out: int

    def __str__(self) -> str:
        lines = [self.label]
        lines += [f"in float: {self.in_float}"] if self.in_float else []
        lines += map(str, self.answers or [f"none of the patterns has an operator {self.op_type}"])
        lines += [f"{self.left_out} more"] if self.left_out else []
        return "\n  ".join(lines)

    def _repr_html_(self) -> str:
        return preformatted(str(self))
