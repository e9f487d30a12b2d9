"""Rules as data: pairs of lists with conditions and values, from TOML, as transformation classes."""

from __future__ import annotations

import functools
from collections.abc import Mapping
from pathlib import Path
from types import MappingProxyType

from onnxgraft.rules.place import RuleFileError
from onnxgraft.rules.rule import Rule, RulePair
from onnxgraft.rules.rule_class import RuleTransformation, class_of
from onnxgraft.rules.rule_file import load_rules, rule_of_lists

__all__ = [
    "Rule",
    "RuleFileError",
    "RulePair",
    "RuleTransformation",
    "class_of",
    "library",
    "load_rules",
    "rule_of_lists",
]


@functools.cache
def library() -> Mapping[str, type[RuleTransformation]]:
    """The classes of the rules that come with the package, by name."""
    found = load_rules(Path(__file__).with_name("library.toml"))
    return MappingProxyType({name: class_of(rule) for name, rule in found.items()})
