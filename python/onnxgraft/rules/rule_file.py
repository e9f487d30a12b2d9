"""Reads rules from TOML: one table per rule. docs/use/rules.md explains the keys."""

from __future__ import annotations

import os
import re
from collections.abc import Iterator, Mapping, Sequence
from dataclasses import replace
from types import MappingProxyType
from typing import Any

from onnxgraft.abstract_transformation import parse
from onnxgraft.errors import WrongUsageError
from onnxgraft.rules.condition_reader import read_conditions
from onnxgraft.rules.conditions import NodeCondition
from onnxgraft.rules.expression_reader import Known, read_expression
from onnxgraft.rules.place import Place, RuleFileError
from onnxgraft.rules.rule import Rule, RulePair
from onnxgraft.rules.sugar import expanded
from onnxgraft.rules.values import Expression
from onnxgraft.toml_file import read_tables

_OF_A_PAIR = ("pattern", "replacement", "commutative", "where", "let", "initializers", "attributes")
_OF_A_RULE = ("summary", "keeps_function", "pairs")
_MOST_PAIRS = 200  # that shorthand may expand to


def load_rules(path: str | os.PathLike[str]) -> Mapping[str, Rule]:
    """The rules of a file, by name.

    Raises:
        RuleFileError: The file cannot be read, is not TOML, or one of its tables is not a rule; the message names file,
            rule and key.
    """
    file = os.fspath(path)
    tables = read_tables(path, RuleFileError, "rule", "fold_scale")
    return MappingProxyType({name: _rule(table, Place(file, name)) for name, table in tables.items()})


def rule_of_lists(pattern: Sequence[str], replacement: Sequence[str]) -> Rule:
    """Two lists as a rule named "pattern", without conditions.

    Raises:
        WrongUsageError: The lists do not follow the notation, or new initializers would have no contents.
    """
    try:
        return Rule("pattern", "", (_pair(tuple(pattern), tuple(replacement), {}, Place("", "pattern")),))
    except RuleFileError as error:
        reason = str(error).partition(": ")[2]
        hint = "; only a rule file can give values of new initializers" if "holds" in reason else ""
        raise WrongUsageError(reason + hint) from None


def _rule(value: Any, place: Place) -> Rule:
    if not isinstance(value, dict):
        place.error("expected a table; write keys below a line such as [fold_scale]")
    if not re.fullmatch(r"[A-Za-z]\w*", place.rule):
        place.error("the name of a rule starts with a letter and has only letters, digits and '_'")
    place.keys(value, (*_OF_A_RULE, *_OF_A_PAIR))
    summary = place.at("summary").typed(value.get("summary", ""), str, "a text")
    keeps = place.at("keeps_function").typed(value.get("keeps_function", False), bool, "true or false")
    pairs: list[RulePair] = []
    for table, here in _pair_tables(value, place):
        pairs += _pairs(table, here)
    if len(pairs) > _MOST_PAIRS:
        place.error(f"it expands to {len(pairs)} pairs; the limit is {_MOST_PAIRS}")
    if keeps:
        pairs = [_with_standard_domain(pair) for pair in pairs]
    return Rule(place.rule, summary, tuple(pairs), keeps, place.file)


def _pair_tables(value: dict[str, Any], place: Place) -> Iterator[tuple[Mapping[str, Any], Place]]:
    if "pairs" not in value:
        yield {key: value[key] for key in value if key in _OF_A_PAIR}, place
        return
    for key in _OF_A_PAIR:
        if key in value:
            place.at(key).error("not allowed next to 'pairs'; write it in each of them")
    listed = value["pairs"]
    if not isinstance(listed, list) or not listed:
        place.at("pairs").error(f"expected tables [[{place.rule}.pairs]], not {listed!r}")
    for number, table in enumerate(listed):
        here = place.at(f"pairs[{number}]")
        here.keys(here.table(table), _OF_A_PAIR)
        yield table, here


def _pairs(table: Mapping[str, Any], place: Place) -> Iterator[RulePair]:
    """One pair of lists, or those that its shorthand expands to."""
    for key in ("pattern", "replacement"):
        if key not in table:
            place.error(f"the key '{key}' is missing")
    pattern = place.at("pattern").texts(table["pattern"], 'strings such as "Conv:0,1i->2"')
    replacement = place.at("replacement").texts(table["replacement"], 'strings such as "#0:0,1i->4"')
    commutative = place.at("commutative").typed(table.get("commutative", False), bool, "true or false")
    for text in replacement:
        if "|" in text.partition(":")[0]:
            place.at("replacement").error(f"'{text}': a new node has one operator; only patterns have alternatives")
    variants = expanded(pattern, commutative=commutative)
    if len(variants) > _MOST_PAIRS:
        place.at("pattern").error(f"it expands to {len(variants)} patterns; the limit is {_MOST_PAIRS}")
    for variant in variants:
        yield _pair(variant, replacement, table, place)


def _pair(pattern: tuple[str, ...], replacement: tuple[str, ...], table: Mapping[str, Any], place: Place) -> RulePair:
    try:
        old, new = parse(pattern, replacement)
    except ValueError as error:
        place.error(str(error))
    links = dict(link for _, inputs, _, _ in old for link in inputs)  # id -> whether it must be an initializer
    constants = {tensor for tensor, is_constant in links.items() if is_constant}
    known = Known({*links, *(output for _, _, output, _ in old)}, constants, {}, len(old))
    nodes, tensors = read_conditions(table.get("where", {}), place.at("where"), known)
    let: dict[str, Expression] = {}
    for name, value in place.at("let").table(table.get("let", {})).items():
        here = place.at("let").at(name)
        if not re.fullmatch(r"[A-Za-z_]\w*", name):
            here.error("a name starts with a letter and has only letters, digits and '_'")
        let[name] = read_expression(value, here, known)
        known = replace(known, named=let)
    return RulePair(
        pattern,
        replacement,
        nodes,
        tensors,
        let,
        _initializers(table, place.at("initializers"), known, new),
        _attributes(table, place.at("attributes"), known, new),
    )


def _initializers(table: Mapping[str, Any], place: Place, known: Known, new: Sequence[Any]) -> dict[str, Expression]:
    links = [link for (_, inputs, _, _), _, _ in new for link in inputs]
    wanted = {tensor for tensor, is_constant in links if is_constant} - set(known.tensors)
    given = place.table(table.get("initializers", {}))
    for tensor in given:
        if tensor not in wanted:
            place.at(tensor).error(f"the replacement does not use a new initializer {tensor}i")
    for tensor in sorted(wanted - given.keys()):
        place.error(f"no value is given for the new initializer {tensor}")
    return {tensor: read_expression(value, place.at(tensor), known) for tensor, value in given.items()}


def _attributes(
    table: Mapping[str, Any], place: Place, known: Known, new: Sequence[Any]
) -> dict[int, dict[str, Expression | str]]:
    writers = {output: place for place, ((_, _, output, _), _, is_kept) in enumerate(new) if not is_kept}
    result: dict[int, dict[str, Expression | str]] = {}
    for tensor, values in place.table(table.get("attributes", {})).items():
        here = place.at(tensor)
        if tensor not in writers:
            here.error(f"no new or copied node of the replacement writes tensor {tensor}")
        result[writers[tensor]] = {
            name: value if isinstance(value, str) else read_expression(value, here.at(name), known)
            for name, value in here.table(values).items()
        }
    return result


def _with_standard_domain(pair: RulePair) -> RulePair:
    """Functions of a rule exist for the standard operators only."""
    asked = {condition.node: condition for condition in pair.nodes}
    conditions = (asked.get(number, NodeCondition(number)) for number in range(len(pair.pattern)))
    return replace(pair, nodes=tuple(one if one.domain is not None else replace(one, domain="") for one in conditions))
