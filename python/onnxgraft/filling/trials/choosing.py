"""Decides by measurement which operators stay float, and whether biases are corrected."""

from __future__ import annotations

import itertools
import math
import os
from collections.abc import Callable, Iterable, Mapping, Sequence
from dataclasses import dataclass, field
from typing import Any

import numpy as np
import numpy.typing as npt
import onnx

from onnxgraft.evaluation.forward import ForwardRunner
from onnxgraft.filling.errors import FillingError
from onnxgraft.filling.operators import Quantizable
from onnxgraft.filling.origins import Origin
from onnxgraft.filling.trials.simulation import Simulation
from onnxgraft.filling.trials.trial_model import error_model, feeds_of, size, switched_model
from onnxgraft.samples import Sample, Samples

Array = npt.NDArray[Any]
Progress = Callable[[str], object]

# Measurements use the first samples: eight, or up to 64 small ones with so many values together. Operators are ranked
# on fewer of them, on one at least: a page of text has as many values as fourteen lines. Mean errors use all samples.
_LEAST_TRIED, _MOST_TRIED, _TRIED_VALUES = 8, 64, 1 << 21
_RANKED_VALUES = 1 << 19
_TRIED_BOTH_WAYS = 16  # operators
_LEAST_NOISE = 1e-15  # anything less is the rounding of floats, and 0 has no logarithm
_LEAST_GAIN = 0.0005  # of the noise with all quantized; an operator with less is not worth staying float
_OLDEST_OPERATOR_SET = 11  # of Round, and of Clip with bounds as inputs


@dataclass
class Choice:
    """The result.

    Attributes:
        left_float: Operators that stay float, and why.
        corrections: The part to subtract from an operator's bias, per output channel.
        decibels: Signal to noise on the samples, for each choice that was measured.
    """

    left_float: dict[str, str] = field(default_factory=dict)
    corrections: dict[str, Array] = field(default_factory=dict)
    decibels: dict[str, float] = field(default_factory=dict)


def choose(
    model: onnx.ModelProto,
    operators: Sequence[Quantizable],
    origins: Sequence[Origin],
    data: Samples,
    *,
    float_share: float = 0.0,
    correct: bool | None = None,
    may_correct: Callable[[Quantizable], bool] = lambda _: True,
    folder: str | os.PathLike[str] | None = None,
    progress: Progress | None = None,
) -> Choice:
    """Measures quantized operators on samples.

    Args:
        model: The prepared float model.
        operators: The operators that can be quantized.
        origins: Their float forms, in the same order.
        data: The samples.
        float_share: The share of the operators' multiply-adds that may stay float.
        correct: Whether biases are corrected; None to correct them if it helps on the samples.
        may_correct: Whether an operator's bias may be corrected.
        folder: The folder that the locations of external tensors start from.
        progress: Called with a description of the current work.

    Raises:
        FillingError: The operator set is older than 11, there are no samples, or no output has a signal on them.
        EvaluationError: The model cannot be computed.
    """
    version = next((entry.version for entry in model.opset_import if entry.domain in {"", "ai.onnx"}), 0)
    if version < _OLDEST_OPERATOR_SET:
        raise FillingError(f"operator set {version} is too old for trials: {_OLDEST_OPERATOR_SET} is needed")
    types = _element_types(model)
    simulations = [
        Simulation(operator, origin, f"onnxgraft_trial_{number}", types.get(operator.weight, onnx.TensorProto.FLOAT))
        for number, (operator, origin) in enumerate(zip(operators, origins, strict=True))
    ]
    tell = progress or (lambda _: None)
    choice = Choice()
    if not simulations:
        return choice
    stream = iter(data)  # which may return its samples only once
    tried: list[Sample] = []
    for sample in stream:
        tried.append(sample)
        if len(tried) >= (_MOST_TRIED if sum(map(_size, tried)) < _TRIED_VALUES else _LEAST_TRIED):
            break
    if not tried:
        raise FillingError(f"there are no samples for trials in {data.label}")
    corrections: dict[str, Array] = {}
    if correct is not False:
        tell("measuring mean errors")
        corrected = [one for one in simulations if one.is_correctable and may_correct(one.operator)]
        corrections = _mean_errors(model, corrected, itertools.chain(tried, stream), folder)
    trials = _Trials(model, simulations, tried, folder)
    everything = frozenset(operator.output for operator in operators)
    choice.decibels["all operators quantized"] = in_decibels(trials.noise(everything))
    if corrections:
        choice.corrections = _helpful(trials, everything, corrections, choice.decibels, tell, always=correct is True)
    if float_share:
        choice.left_float = _left_float(trials, operators, float_share, choice.corrections, tell)
    if choice.left_float:
        for output in choice.left_float:
            choice.corrections.pop(output, None)
        rest = everything - choice.left_float.keys()
        said = f"{len(choice.left_float)} operators left float"
        choice.decibels[said] = in_decibels(trials.noise(rest, choice.corrections))
    return choice


def _helpful(
    trials: _Trials,
    quantized: frozenset[str],
    corrections: Mapping[str, Array],
    decibels: dict[str, float],
    tell: Progress,
    *,
    always: bool,
) -> dict[str, Array]:
    """All corrections, if they help together; otherwise those that help their operator alone; otherwise none."""
    tell("trying corrected biases")
    plain, better = trials.noise(quantized), trials.noise(quantized, corrections)
    decibels["biases corrected"] = in_decibels(better)
    if always or better < plain:
        return dict(corrections)
    some = {}
    for number, (output, values) in enumerate(corrections.items(), 1):
        tell(f"trying corrected bias {number} of {len(corrections)}")
        alone = frozenset({output})
        if trials.noise(alone, corrections) < trials.noise(alone):
            some[output] = values
    better = trials.noise(quantized, some)
    decibels[f"{len(some)} of {len(corrections)} biases corrected"] = in_decibels(better)
    if better < plain:
        return some
    decibels["no bias corrected"] = in_decibels(plain)
    return {}


def _element_types(model: onnx.ModelProto) -> dict[str, int]:
    return {tensor.name: tensor.data_type for tensor in model.graph.initializer}


def _mean_errors(
    model: onnx.ModelProto,
    simulations: Sequence[Simulation],
    data: Iterable[Sample],
    folder: str | os.PathLike[str] | None,
) -> dict[str, Array]:
    """The mean error of each output channel of each operator, on float inputs."""
    if not simulations:
        return {}
    extended, outputs = error_model(model, simulations)
    runner = ForwardRunner(extended, outputs, folder=folder)
    sums = [np.zeros(max(1, int(np.prod(one.channels))), np.float64) for one in simulations]
    count = 0
    for sample in data:
        found = runner.run(sample)
        sums = [total + np.asarray(found[name]).reshape(-1) for total, name in zip(sums, outputs, strict=True)]
        count += 1
    means = [total / max(count, 1) for total in sums]
    return {one.operator.output: mean for one, mean in zip(simulations, means, strict=True) if np.isfinite(mean).all()}


class _Trials:
    """Runs of the model with some operators quantized, compared with the float one."""

    def __init__(
        self,
        model: onnx.ModelProto,
        simulations: Sequence[Simulation],
        samples: Sequence[Sample],
        folder: str | os.PathLike[str] | None,
    ) -> None:
        self._simulations = simulations
        names = [value.name for value in model.graph.output]
        sizes = [size(simulation) for simulation in simulations]
        self._runner = ForwardRunner(switched_model(model, simulations), [*names, *sizes], folder=folder, optimize=True)
        self._samples = samples
        self._exact = [self._run(sample, frozenset(), {}) for sample in self._samples]
        self._signals = [
            {
                name: energy
                for name in names
                if found[name].dtype.kind == "f" and 0 < (energy := _energy(found[name])) < math.inf
            }
            for found in self._exact
        ]
        if not any(self._signals):
            raise FillingError("no output of the float model has a signal on the samples, so nothing can be compared")

    def within(self, values: int) -> int:
        """The number of first samples that have at most so many values together; 1 at least."""
        return max(1, sum(total <= values for total in itertools.accumulate(map(_size, self._samples))))

    def multiply_adds(self) -> dict[str, int]:
        """The multiply-adds of each operator on the first sample."""
        found = self._exact[0]
        return {one.operator.output: one.multiply_adds(int(found[size(one)])) for one in self._simulations}

    def noise(
        self, quantized: frozenset[str], corrections: Mapping[str, Array] | None = None, *, most: int | None = None
    ) -> float:
        """Energy of the error, relative to that of the float output, of a typical sample.

        That is the mean over the outputs, and the geometric mean over the samples: in a plain sum, one sample that
        crosses a decision threshold would outweigh the rest. At most the first `most` samples are computed.
        """
        logarithms: list[float] = []
        for sample, exact, signals in zip(self._samples, self._exact, self._signals, strict=True):
            if signals and (most is None or len(logarithms) < most):
                found = self._run(sample, quantized, corrections or {})
                noises = [_energy(found[name] - exact[name].astype(np.float64)) / signals[name] for name in signals]
                mean = float(np.nan_to_num(np.mean(noises), nan=math.inf))
                logarithms.append(math.log(min(max(mean, _LEAST_NOISE), 1 / _LEAST_NOISE)))
        return math.exp(sum(logarithms) / len(logarithms))

    def _run(self, sample: Sample, quantized: frozenset[str], corrections: Mapping[str, Array]) -> dict[str, Array]:
        return self._runner.run({**sample, **feeds_of(self._simulations, quantized, corrections)})


def _size(sample: Sample) -> int:
    return sum(array.size for array in sample.values())


def in_decibels(noise: float) -> float:
    """Signal to noise, from the noise relative to the signal."""
    return -10 * math.log10(noise)


def _energy(values: Array) -> float:
    return float(np.square(values, dtype=np.float64).sum())


def _left_float(
    trials: _Trials, operators: Sequence[Quantizable], share: float, corrections: Mapping[str, Array], tell: Progress
) -> dict[str, str]:
    """The operators to leave float, within the share of multiply-adds.

    Each operator is quantized alone on a few samples: the loss of the outputs is its cost. For those with the largest
    cost, the gain from leaving them float is measured as well, since errors can cancel or enlarge each other. Of the
    choices that these two figures lead to, the one with the least noise on all tried samples counts.
    """
    costs = trials.multiply_adds()
    total = sum(costs.values())
    room = share * total
    everything = frozenset(costs)
    few = trials.within(_RANKED_VALUES)
    baseline, quick = trials.noise(everything, corrections), trials.noise(everything, corrections, most=few)
    alone: dict[str, float] = {}
    fitting = [operator.output for operator in operators if costs[operator.output] <= room]
    for number, output in enumerate(fitting, 1):
        tell(f"trying operator {number} of {len(fitting)}")
        alone[output] = trials.noise(frozenset({output}), corrections, most=few) / quick
    worst = sorted(alone, key=lambda output: alone[output], reverse=True)[:_TRIED_BOTH_WAYS]
    saved: dict[str, float] = {}
    for number, output in enumerate(worst, 1):
        tell(f"trying without operator {number} of {len(worst)}")
        saved[output] = 1 - trials.noise(everything - {output}, corrections, most=few) / quick
    mixed = {output: (gain + max(saved.get(output, gain), 0)) / 2 for output, gain in alone.items()}
    chosen = {
        _within(room, costs, gains, by_cost=by_cost): None
        for gains in (alone, {**alone, **saved}, mixed)
        for by_cost in (True, False)
    }
    tell(f"comparing {len(chosen)} choices")
    noises = {choice: trials.noise(everything - choice, corrections) for choice in chosen}
    best = min(noises, key=lambda choice: noises[choice], default=frozenset())
    if not best or noises[best] >= baseline:
        return {}
    return {
        output: f"quantized alone it causes {alone[output]:.0%} of the noise, at {costs[output] / total:.1%} of the "
        "multiply-adds"
        for output in fitting
        if output in best
    }


def _within(room: float, costs: Mapping[str, int], gains: Mapping[str, float], *, by_cost: bool) -> frozenset[str]:
    """Those with the largest gain, for their cost or by themselves, as long as there is room."""
    chosen = set()
    for output in sorted(gains, key=lambda name: gains[name] / max(costs[name], 1) ** by_cost, reverse=True):
        if gains[output] > _LEAST_GAIN and costs[output] <= room:
            room -= costs[output]
            chosen.add(output)
    return frozenset(chosen)
