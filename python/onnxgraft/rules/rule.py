"""A rule as data: the contents of a rule file, checked and with shorthand expanded."""

from __future__ import annotations

from collections.abc import Mapping
from dataclasses import dataclass, field

from onnxgraft.rules.conditions import NodeCondition, TensorCondition
from onnxgraft.rules.values import Expression


@dataclass(frozen=True)
class RulePair:
    """One pair of lists, and what belongs to it."""

    pattern: tuple[str, ...]
    replacement: tuple[str, ...]
    nodes: tuple[NodeCondition, ...] = ()
    tensors: tuple[TensorCondition, ...] = ()
    let: Mapping[str, Expression] = field(default_factory=dict)  # names for values, in order
    initializers: Mapping[str, Expression] = field(default_factory=dict)  # id of the replacement -> contents
    attributes: Mapping[int, Mapping[str, Expression | str]] = field(default_factory=dict)  # replacement position

    @property
    def is_plain(self) -> bool:
        """Whether the lists define the pair completely, so that no occurrence has to be checked."""
        return not (self.nodes or self.tensors or self.initializers or self.attributes)


@dataclass(frozen=True)
class Rule:
    """One rule. `pairs` run one after the other."""

    name: str
    summary: str
    pairs: tuple[RulePair, ...]
    keeps_function: bool = False
    source: str = ""  # the file that it comes from
