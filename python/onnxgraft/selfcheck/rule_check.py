"""`check_rule`: the self-test of a rule, and numbers before and after if the rule claims to keep the function."""

from __future__ import annotations

import random
from collections.abc import Mapping
from dataclasses import dataclass

import numpy as np
import onnx

from onnxgraft.errors import EvaluationError
from onnxgraft.evaluation import Convention, evaluate
from onnxgraft.rules import Rule, RulePair, class_of
from onnxgraft.rules.values import Array
from onnxgraft.selfcheck.checking import check_transformation
from onnxgraft.selfcheck.result import CheckResult
from onnxgraft.selfcheck.rule_example import RuleExample

# As on the accelerator, with exact sums, so that every difference comes from the rule.
_CONVENTION = Convention(rounding=True)
_TOLERANCE = 1e-4  # of the largest value of an output
_EXAMPLES = 3  # graphs that meet the conditions, for each pair
_ATTEMPTS = 30  # attempts to make a model that can be evaluated


@dataclass(frozen=True)
class Comparison:
    """The outputs of one model before and after."""

    model: onnx.ModelProto
    inputs: Mapping[str, Array]
    replaced: int
    largest: float  # difference
    bound: float

    @property
    def agrees(self) -> bool:
        """Whether the difference is within its bound."""
        return self.largest <= self.bound


def check_rule(rule: Rule, *, graphs: int = 200, seed: int = 0) -> CheckResult:
    """Runs `check_transformation` on a rule and, if it keeps the function, compares numbers.

    For each pair of the rule it makes small models that meet its conditions, evaluates them with random inputs,
    rewrites them and evaluates them again. An output may differ by 1e-4 of its largest value.

    Args:
        rule: The rule.
        graphs: How many random graphs; also the number of attempts to make models to evaluate, for each pair.
        seed: Their seed.

    Returns:
        The findings, each with a small graph that shows it, and notes.
    """
    examples = [
        RuleExample(pair, random.Random(f"{seed} example {number} {again}")).build()
        for number, pair in enumerate(rule.pairs)
        for again in range(_EXAMPLES)
    ]
    result = check_transformation(class_of(rule), graphs=graphs, seed=seed, examples=examples)
    if rule.keeps_function:
        for number, pair in enumerate(rule.pairs):
            _compare_pair(rule, number, pair, graphs, seed, result)
    return result


def _compare_pair(rule: Rule, number: int, pair: RulePair, graphs: int, seed: int, result: CheckResult) -> None:
    alone = class_of(Rule(rule.name, rule.summary, (pair,), rule.keeps_function, rule.source))
    compared = 0
    reasons: list[str] = []
    wanted = max(1, graphs // 20)
    for attempt in range(max(_ATTEMPTS, graphs)):
        example = RuleExample(pair, random.Random(f"{seed} {number} {attempt}"))
        model = example.build()
        try:
            comparison = compare(alone, model, example.inputs, reasons)
        except EvaluationError as error:
            reasons.append(str(error))
            continue
        if comparison is None:
            continue
        compared += 1
        if not comparison.agrees:
            text = onnx.printer.to_text(comparison.model.graph)
            result.add(
                f"function: pair {number}, {list(pair.pattern)}, changes what is computed: differs by "
                f"{comparison.largest:.3g} where {comparison.bound:.3g} is allowed\n  smallest model:\n"
                + "\n".join(f"    {line}" for line in text.splitlines()),
                comparison.model.graph,
            )
            return
        if compared == wanted:
            return
    if not compared:
        most = max(set(reasons), key=reasons.count) if reasons else "could not make a model"
        result.notes.append(f"pair {number}, {list(pair.pattern)}: its numbers were not compared: {most}")


def compare(cls: type, model: onnx.ModelProto, inputs: Mapping[str, Array], reasons: list[str]) -> Comparison | None:
    """Evaluates a model, rewrites a copy and evaluates the copy; None if nothing was replaced.

    Raises:
        EvaluationError: The model cannot be evaluated before the rewrite. If it cannot be evaluated afterwards, the
            comparison has an infinite difference.
    """
    with np.errstate(all="ignore"):
        before = evaluate(model, inputs, _CONVENTION)
    after_model = onnx.ModelProto()
    after_model.CopyFrom(model)
    refused: list[str] = []
    count = _apply(cls, after_model.graph, refused)
    if not count:
        reasons.extend(refused or ["the pattern was not found"])
        return None
    try:
        with np.errstate(all="ignore"):
            after = evaluate(after_model, inputs, _CONVENTION)
    except EvaluationError:
        return Comparison(model, inputs, count, np.inf, 0.0)
    largest = bound = 0.0
    for name, old in before.items():
        new = after[name]
        if old.shape != new.shape or old.dtype != new.dtype:
            return Comparison(model, inputs, count, np.inf, 0.0)
        finite = np.isfinite(old)
        if not np.array_equal(finite, np.isfinite(new)):
            return Comparison(model, inputs, count, np.inf, 0.0)
        values, others = old[finite].astype(np.float64), new[finite].astype(np.float64)
        allowed = _TOLERANCE * max(1e-30, float(np.abs(values).max(initial=0.0)))
        difference = float(np.abs(values - others).max(initial=0.0))
        if difference > allowed or not largest:
            largest, bound = difference, allowed
    return Comparison(model, inputs, count, largest, bound)


def _apply(cls: type, graph: onnx.GraphProto, reasons: list[str]) -> int:
    """Runs the class and collects the reasons of its refusals."""
    instance = cls()
    run = instance._replace_all_isomorphic_sub_graphs
    vars(instance)["_replace_all_isomorphic_sub_graphs"] = lambda *given, **named: run(
        *given, refusal_reasons=reasons, **named
    )
    return int(instance.apply(graph))
