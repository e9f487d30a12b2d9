"""`measure`: compares two models on the same samples, in decibels, on request tensor by tensor."""

from __future__ import annotations

import importlib.util
import math
from collections.abc import Callable, Iterable, Iterator, Mapping, Sequence
from dataclasses import dataclass
from os import PathLike, fspath
from typing import Any

import numpy as np
import numpy.typing as npt
import onnx

from onnxgraft.errors import EvaluationError, VerificationError
from onnxgraft.evaluation import HARDWARE, Convention, ForwardRunner, lower
from onnxgraft.evaluation.lowered_graph import versions
from onnxgraft.evaluation.operator_formulas import label, quantize_parameter
from onnxgraft.tensor_types import quantized_values
from onnxgraft.verification import interface
from onnxgraft.verification.accuracy import Accuracy, QuantizeNumbers, SumNumbers
from onnxgraft.verification.computing import sorted_model
from onnxgraft.verification.counterparts import is_counterpart, writers_of
from onnxgraft.verification.noise import Noise
from onnxgraft.verification.sensitivity import hybrids, sensitivity_of

Array = npt.NDArray[Any]
Samples = Iterable[Mapping[str, Array]]
Progress = Callable[[int, int | None], object]

# Tensors of one sample that are held in memory at a time, for each model.
_AT_ONCE = 32
_WITHOUT_ONE_ARRAY = ("Sequence", "SplitToSequence", "Optional")
_LOWEST, _HIGHEST = -128.5, 127.5  # values beyond it are cut off by rounding


def measure(
    before: onnx.ModelProto,
    after: onnx.ModelProto,
    samples: Samples,
    *,
    wanted: float | None = None,
    per_tensor: bool = False,
    sensitivity: bool = False,
    folder_before: str | PathLike[str] | None = None,
    folder_after: str | PathLike[str] | None = None,
    convention: Convention = HARDWARE,
    progress: Progress | None = None,
) -> Accuracy:
    """Computes both models on samples and accumulates signal and noise.

    SQNR = 10 * log10(sum(x^2) / sum((x - y)^2)) in dB, over all elements of all samples; x before, y after.

    Args:
        before: The model to compare with, usually the float one; it is not changed.
        after: The model made from it; it is not changed.
        samples: An array for each input of `before` by name. It must be iterable repeatedly: there are several passes.
        wanted: The least SQNR of each output, in dB; None for no limit.
        per_tensor: Whether to measure every tensor that both models have, and the effect of quantize nodes and sums.
            That takes a pass over the samples for each 32 tensors.
        sensitivity: Whether to quantize each operator alone as well, which takes a pass for each.
        folder_before: Where the external data of `before` is; None for the current folder.
        folder_after: Where the external data of `after` is; None for the current folder.
        convention: How quantized operators are read.
        progress: Called with the number of passes done, and of all.

    Returns:
        The rows. Memory does not depend on the number of samples.

    Raises:
        VerificationError: There is no sample.
        EvaluationError: A model cannot be computed; the message names the model and the reason.
    """
    again = list(samples) if isinstance(samples, Iterator) else samples
    first, second = _Side("before", before, folder_before, convention), _Side("after", after, folder_after, convention)
    if importlib.util.find_spec("onnxruntime") and not (first.runs() and second.runs()):
        first.evaluator = second.evaluator = "reference"
    names = interface.common_outputs(before.graph, after.graph)
    result = Accuracy(wanted=wanted, notes=interface.lost_outputs(before.graph, after.graph))
    if not names:
        return result
    common, result.skipped = _common(first, second) if per_tensor else ([], [])
    alone = list(hybrids(first.model, second.model, first.folder, second.folder)) if sensitivity else []
    watched = _Watched(second)
    parts = [common[start : start + _AT_ONCE] for start in range(0, len(common), _AT_ONCE)]
    own = watched.parts(_AT_ONCE) if per_tensor else []
    step = _Steps(progress, 1 + len(parts) + len(own) + len(alone))
    for rows, part in [(result.outputs, names), *((result.tensors, part) for part in parts)]:
        noises = {name: Noise() for name in part}
        one, two = first.runner(part), second.runner(part)
        result.samples = 0
        for sample in again:
            result.samples += 1
            expected, found = one.run(first.feeds(sample)), two.run(second.feeds(sample))
            for name, noise in noises.items():
                noise.add(expected[name], found[name])
        if not result.samples:
            raise VerificationError("no inputs were given: there are no samples")
        result.runner = one.evaluator
        rows += [noise.row(name, second.label(name)) for name, noise in noises.items()]
        step.done()
    for part in own:
        runner = second.runner([name for name in part if name in second.writers])
        for sample in again:
            watched.add({**second.feeds(sample), **runner.run(second.feeds(sample))}, part)
        step.done()
    if per_tensor:
        result.quantize_nodes, result.sums = watched.quantize_nodes(), watched.sums()
    expected_outputs = first.runner(names)
    for hybrid in alone:
        side = _Side(hybrid.name, hybrid.model, hybrid.folder, convention, first.evaluator)
        runner = side.runner(names)
        result.sensitivities.append(sensitivity_of(hybrid, names, expected_outputs, runner, map(first.feeds, again)))
        step.done()
    result.sensitivities.sort(key=lambda one: one.sqnr)
    return result


@dataclass
class _Steps:
    progress: Progress | None
    total: int
    count: int = 0

    def done(self) -> None:
        self.count += 1
        if self.progress is not None:
            self.progress(self.count, self.total)


class _Side:
    """One of the models, ready to compute."""

    def __init__(
        self,
        title: str,
        model: onnx.ModelProto,
        folder: str | PathLike[str] | None,
        convention: Convention,
        evaluator: str = "auto",
    ) -> None:
        self.title = title
        self.model = sorted_model(model)
        self.folder = fspath(folder or "")
        self.evaluator: Any = evaluator
        self.writers = writers_of(self.model.graph)
        self.quantized = quantized_values.find(self.model.graph, versions(self.model)).tensors
        self._lowered = lower(self.model, convention, folder=self.folder)
        constants = {tensor.name for tensor in self._lowered.graph.initializer}
        self._inputs = {value.name for value in self._lowered.graph.input} - constants

    def runs(self) -> bool:
        """Whether onnxruntime takes the model."""
        try:
            self.runner([])
        except EvaluationError:
            return False
        return True

    def runner(self, names: Sequence[str]) -> ForwardRunner:
        try:
            return ForwardRunner(self._lowered, names or None, folder=self.folder, evaluator=self.evaluator)
        except EvaluationError as error:
            raise EvaluationError(f"the model {self.title} does not run: {error}") from error

    def feeds(self, sample: Mapping[str, Array]) -> dict[str, Array]:
        return {name: values for name, values in sample.items() if name in self._inputs}

    def label(self, name: str) -> str:
        return label(self.writers[name]) if name in self.writers else "input"


def _common(first: _Side, second: _Side) -> tuple[list[str], list[str]]:
    """The tensors to compare, in computation order, and the tensors of one name that mean something else."""
    found: list[str] = []
    skipped: list[str] = []
    for name, node in first.writers.items():
        other = second.writers.get(name)
        if other is None or node.op_type.startswith(_WITHOUT_ONE_ARRAY):
            continue
        is_comparable = is_counterpart(node, other) and (name in first.quantized) == (name in second.quantized)
        (found if is_comparable else skipped).append(name)
    return found, skipped


class _Watched:
    """The share that quantize nodes cut off, and the size of sums."""

    def __init__(self, side: _Side) -> None:
        nodes = side.model.graph.node
        self._quantizers = [node for node in nodes if node.op_type == "TesselQuant"]
        self._operators = [
            node
            for node in nodes
            if node.op_type in quantized_values.INTEGER_OPERATORS and node.output[0] in side.quantized
        ]
        self._cut = dict.fromkeys((node.output[0] for node in self._quantizers), 0)
        self._elements = dict(self._cut)
        self._largest = dict.fromkeys((node.output[0] for node in self._operators), 0.0)

    def parts(self, size: int) -> list[list[str]]:
        names = list(dict.fromkeys([*(node.input[0] for node in self._quantizers), *self._largest]))
        return [names[start : start + size] for start in range(0, len(names), size)]

    def add(self, values: Mapping[str, Array], names: Sequence[str]) -> None:
        wanted = set(names)
        for node in self._quantizers:
            if node.input[0] in wanted:
                scale, offset = _parameters(node)
                steps = np.asarray(values[node.input[0]], np.float64) * scale + offset
                self._cut[node.output[0]] += int(((steps < _LOWEST) | (steps > _HIGHEST)).sum())
                self._elements[node.output[0]] += steps.size
        for name in self._largest.keys() & wanted:
            self._largest[name] = max(self._largest[name], float(np.abs(values[name]).max(initial=0.0)))

    def quantize_nodes(self) -> list[QuantizeNumbers]:
        return [
            QuantizeNumbers(
                node.name or node.output[0],
                node.input[0],
                *_parameters(node),
                self._cut[node.output[0]] / max(self._elements[node.output[0]], 1),
            )
            for node in self._quantizers
        ]

    def sums(self) -> list[SumNumbers]:
        found = ((node, self._largest[node.output[0]]) for node in self._operators)
        return [SumNumbers(label(node), node.output[0], value, _bits(value)) for node, value in found]


def _parameters(node: onnx.NodeProto) -> tuple[float, float]:
    return quantize_parameter(node, "scale", 1.0), quantize_parameter(node, "offset", 0.0)


def _bits(value: float) -> int:
    """The bits of a signed integer that holds value and -value."""
    return math.ceil(math.log2(value + 1)) + 1 if math.isfinite(value) else 0
