"""`check_transformation`: the self-test for users' own transformations."""

from __future__ import annotations

import inspect
import random
import re
from collections import Counter
from collections.abc import Iterable, Sequence

import onnx
from onnx import GraphProto

from onnxgraft.abstract_transformation import AbstractTransformation, find_occurrences
from onnxgraft.matching.subject import Subject, graph_of, subject_of
from onnxgraft.selfcheck.graph_builder import random_graph
from onnxgraft.selfcheck.recording import EndlessError, Runner
from onnxgraft.selfcheck.result import CheckResult
from onnxgraft.selfcheck.rules import Runs, broken
from onnxgraft.selfcheck.shrinking import shrunk

_VALUES = re.compile(r"\{[^{}\n]{40,}\}")  # of tensors, if they are too many to read
_HARMLESS = ("unread",)  # problems that only deserve a note
_ENOUGH = 20  # after this many graphs, a pattern should have occurred
_ENOUGH_RAISED = 5  # after this many graphs with an occurrence, a callback should have returned at least once


def check_transformation(
    cls: type[AbstractTransformation],
    *,
    graphs: int = 200,
    seed: int = 0,
    examples: Iterable[onnx.ModelProto | GraphProto] = (),
) -> CheckResult:
    """Runs a transformation on random graphs around its patterns and checks the results.

    The graphs hold occurrences (some of them overlapping), near misses, other readers of inner tensors, graph outputs
    and nested graphs. Initializers and attributes of known operators have plausible shapes and types.

    After each run these conditions must hold: the nodes are in topological order, every tensor has one writer, every
    input exists, the graph keeps its inputs and outputs, other nodes are the same objects in the same order, and the
    result is the number of occurrences that the callback accepted. A refusal must leave no trace. The same graph and
    seed must give the same result. An exception of the callback is a fault only if it breaks the graph or is always
    raised.

    Args:
        cls: The class; it is made without arguments.
        graphs: How many random graphs.
        seed: Their seed. The generators of NumPy and `random` keep their state.
        examples: More graphs to check, such as a small model that the transformation was written for. They are not
            changed.

    Returns:
        The findings, each with the smallest graph that shows it, and notes.

    Raises:
        TypeError: `cls` is not a subclass of AbstractTransformation.
        ValueError: `graphs` is negative.
    """
    if graphs < 0:
        raise ValueError(f"graphs must be 0 or more, not {graphs}")
    if not inspect.isclass(cls) or not issubclass(cls, AbstractTransformation):
        raise TypeError(f"expected a subclass of AbstractTransformation, not {cls!r}")
    try:
        subject = subject_of(cls)
        for pattern, replacement in subject.pairs:
            find_occurrences(GraphProto(), pattern, replacement)
    except Exception as error:  # any error of foreign code
        return CheckResult(cls.__name__, findings=[f"set-up: {type(error).__name__}: {error}"], counterexamples=[None])
    if not subject.pairs:
        return CheckResult(
            subject.name, findings=["set-up: apply runs no pattern on an empty graph"], counterexamples=[None]
        )
    return _Check(cls, subject).run(graphs, seed, [graph_of(example) for example in examples])


class _Check:
    """One self-test; collects over all graphs."""

    def __init__(self, cls: type[AbstractTransformation], subject: Subject) -> None:
        self._runner = Runner(cls)
        self._subject = subject
        self._result = CheckResult(subject.name)
        self._faults: dict[str, tuple[str, GraphProto, str]] = {}  # identifier -> sentence, graph, origin
        self._occurred: Counter[int] = Counter()
        self._errors: Counter[str] = Counter()
        self._messages: dict[str, str] = {}
        self._error_graph: GraphProto | None = None
        self._asked = 0
        self._changed_again = 0

    def run(self, graphs: int, seed: int, examples: Sequence[GraphProto]) -> CheckResult:
        patterns = [pattern for pattern, _ in self._subject.pairs]
        for number in range(graphs):
            self._judge(random_graph(random.Random(f"{seed} {number}"), patterns), f"random graph {number}")
            if "endless" in self._faults:
                graphs = 0  # it would be the same for any other graph
                break
        for number, example in enumerate(examples):
            self._judge(example, f"example {number}")
        for identifier, (sentence, graph, where) in self._faults.items():
            if identifier in _HARMLESS:
                self._result.notes.append(sentence)
            else:
                self._add_finding(identifier, sentence, graph, where)
        self._judge_all(graphs, enough=1 if examples else min(graphs, _ENOUGH_RAISED))
        return self._result

    def _judge(self, graph: GraphProto, where: str) -> None:
        for number, (pattern, replacement) in enumerate(self._subject.pairs):
            self._occurred[number] += len(find_occurrences(graph, pattern, replacement))
        runs = self._runs(graph)
        for identifier, sentence in broken(runs):
            self._faults.setdefault(identifier, (sentence, graph, where))
        plain, result = runs.plain, self._result
        result.graphs += 1
        result.found += len(plain.calls) + plain.raised_in_callback
        result.accepted += plain.accepted
        result.refused += len(plain.calls) - plain.accepted
        result.raised += plain.error is not None
        self._asked += bool(plain.calls) or plain.raised_in_callback
        if plain.error is not None:
            self._note_error(plain.error, graph)
        if runs.again is not None and runs.again.error is None:
            self._changed_again += runs.again.graph.SerializeToString() != runs.again.before.SerializeToString()

    def _note_error(self, error: BaseException, graph: GraphProto) -> None:
        kind = type(error).__name__
        if not isinstance(error, EndlessError):
            self._errors[kind] += 1
            self._messages.setdefault(kind, str(error))
            self._error_graph = self._error_graph or graph

    def _runs(self, graph: GraphProto) -> Runs:
        runner = self._runner
        instance = runner.new()
        plain = runner.run(instance, graph)
        if isinstance(plain.error, EndlessError):
            return Runs(plain, plain, plain, None, None)
        same = runner.run(instance, graph)
        refused = runner.run(runner.new(), graph, refuse=True)
        middle = len(plain.calls) // 2
        raised = runner.run(runner.new(), graph, raise_at=middle) if plain.calls else None
        again = runner.run(runner.new(), plain.graph) if plain.error is None and plain.accepted else None
        return Runs(plain, same, refused, raised, again)

    def _add_finding(self, identifier: str, sentence: str, graph: GraphProto, where: str) -> None:
        def fails(trial: GraphProto) -> bool:
            return any(other == identifier for other, _ in broken(self._runs(trial)))

        smallest = shrunk(graph, fails)
        sentence = next((text for other, text in broken(self._runs(smallest)) if other == identifier), sentence)
        self._result.add(_text(identifier, sentence, smallest, where), smallest)

    def _judge_all(self, graphs: int, *, enough: int) -> None:
        """Findings that need all graphs together."""
        result, pairs = self._result, self._subject.pairs
        if graphs >= _ENOUGH * len(pairs):
            for number, (pattern, _) in enumerate(pairs):
                if not self._occurred[number]:
                    result.add(f"pattern: pattern {number}, {list(pattern)}, matched none of the graphs")
        for kind, count in self._errors.items():
            result.notes.append(f"{kind} for {count} of {result.graphs} graphs, the first: {self._messages[kind]}")
        if self._error_graph is not None and self._asked >= enough and result.raised >= self._asked:
            kind, message = next(iter(self._messages.items()))
            graph = self._smallest_error(kind)
            sentence = f"every run that found something raised, the first {kind}: {message}"
            result.add(_text("always raises", sentence, graph, "random graphs"), graph)
        if result.found and not result.accepted and not result.raised:
            result.notes.append("every occurrence was refused: its behaviour after accepting one is unknown")
        if self._changed_again:
            result.notes.append(f"a second apply changed {self._changed_again} of {result.graphs} graphs again")

    def _smallest_error(self, kind: str) -> GraphProto:
        assert self._error_graph is not None

        def fails(trial: GraphProto) -> bool:
            return type(self._runner.run(self._runner.new(), trial).error).__name__ == kind

        return shrunk(self._error_graph, fails)


def _text(identifier: str, sentence: str, graph: GraphProto, where: str) -> str:
    lines = [f"{identifier}: {sentence}", f"  smallest graph, from {where}:"]
    shortened = _VALUES.sub("{...}", onnx.printer.to_text(graph))
    return "\n".join([*lines, *(f"    {line}" for line in shortened.splitlines())])
