"""`calibrate`: one pass over the samples, each tensor's range in constant memory."""

from __future__ import annotations

import itertools
import logging
import os
from collections.abc import Callable, Iterable, Iterator, Mapping, Sequence
from pathlib import Path
from typing import Any

import numpy as np
import numpy.typing as npt
import onnx

from onnxgraft import preparation
from onnxgraft.calibration.calibration import Calibration, Equalized, Range
from onnxgraft.calibration.channels import Channels
from onnxgraft.calibration.equalizing import equalizable
from onnxgraft.calibration.fingerprinting import model_fingerprint
from onnxgraft.calibration.histograms import Statistics
from onnxgraft.calibration.methods import chooser
from onnxgraft.calibration.watched import Watched, watched_tensors
from onnxgraft.errors import CalibrationError, EvaluationError
from onnxgraft.evaluation.forward import Evaluator, ForwardRunner
from onnxgraft.io.model_files import load
from onnxgraft.samples import Data, Images, Sample, open_data

Array = npt.NDArray[Any]
Progress = Callable[[int, int | None], object]

_WORTHWHILE = 0.75
# The share of a channel's values that decides its factor: the largest ones may exceed the range of the others.
_KEPT = (0.99, 0.999, 0.9999, 1.0)

_log = logging.getLogger(__name__)


def calibrate(
    model: onnx.ModelProto | str | os.PathLike[str],
    data: Data,
    *,
    method: str = "min-max",
    percentile: float = 99.99,
    images: Images | None = None,
    sizes: Mapping[str, int] | None = None,
    seed: int = 0,
    prepare: bool | Iterable[str] = True,
    folder: str | os.PathLike[str] | None = None,
    evaluator: Evaluator = "auto",
    all_tensors: bool = False,
    memory: int = 512 * 2**20,
    progress: Progress | None = None,
) -> Calibration:
    """Collects the ranges that the tensors of a float model take on samples.

    The samples are read once, one after the other; memory does not grow with their number.

    Args:
        model: The float model, or its file. It is not changed.
        data: Samples: an `.npz` or `.npy` file, a folder of them or of images, "random:N", or an iterable in Python
            (`open_data` describes the forms).
        method: "min-max" takes the extremes, "percentile" leaves the outermost values out, "mse" takes the range with
            the least mean square error of 8-bit numbers.
        percentile: How many percent of a tensor's values "percentile" keeps, split evenly between both ends.
        images: How images become arrays.
        sizes: Sizes of symbolic dimensions for "random:N", by name or as "input[axis]".
        seed: The seed of "random:N".
        prepare: Whether to prepare a copy of the model first, as `rewrite` does, or the steps to run. Ranges are those
            of the prepared model's tensors.
        folder: The folder that the locations of external tensors start from; None is the model file's, or the current
            one.
        evaluator: "auto" chooses onnxruntime if it is installed, otherwise onnx's own evaluator, which is far slower.
        all_tensors: Whether to watch every tensor, not only the inputs of quantized operators and the graph's inputs
            and outputs.
        memory: The most bytes of inner tensors to hold at a time. A model with more is computed in parts, which takes a
            forward run each.
        progress: Called with the number of samples done, and that of all, if it is known.

    Returns:
        The ranges of tensors of floating-point numbers that the outer graph computes or receives. A tensor without
        elements, or with values that are not finite, has no range; a warning names it.

    Raises:
        CalibrationError: There are no samples, no tensors to watch, or the method is unknown.
        DataError: The data cannot be read or do not fit the model's inputs.
        EvaluationError: The model cannot be computed.
        ModelFileError: The model file cannot be used.
    """
    name, choose = chooser(method, percentile)
    if not isinstance(model, onnx.ModelProto):
        folder = Path(model).parent if folder is None else folder
        own = load(Path(model))
    else:
        own = onnx.ModelProto()
        own.CopyFrom(model)
    samples = open_data(data, own, images=images, sizes=sizes, seed=seed)
    fingerprint = model_fingerprint(own, folder)
    if prepare is not False:
        preparation.prepare(own, None if prepare is True else prepare, folder=folder)
    prepared = fingerprint if prepare is False else model_fingerprint(own, folder)
    feeds = iter(samples)
    first = next(feeds, None)
    if first is None:
        raise CalibrationError(f"there are no samples in {samples.label}")
    watched = watched_tensors(own, first, os.fspath(folder) if folder is not None else ".", everything=all_tensors)
    runners = [
        ForwardRunner(own, block, folder=folder, evaluator=evaluator) for block in _blocks(watched.computed, memory)
    ]
    if not runners:
        raise CalibrationError("the model computes no tensor of floating-point numbers")
    if len(runners) > 1:
        _log.info("inner tensors are computed in %d parts", len(runners))
    channels = {found.tensor: found.channels for found in equalizable(own.graph)}
    del own
    collector = _Collector(watched, channels, counts_values=method != "min-max")
    for done, sample in enumerate(itertools.chain([first], feeds), 1):
        try:
            collector.add(sample, runners)
        except EvaluationError as error:
            raise EvaluationError(f"sample {done} of {samples.label}: {error}") from error
        if progress is not None:
            progress(done, samples.count)
    ranges: dict[str, Range] = {}
    outside: dict[str, float] = {}
    for tensor, seen in collector.usable():
        found = choose(seen)
        ranges[tensor], outside[tensor] = found, seen.share_outside(found.low, found.high)
    for alias, source in watched.aliases.items():
        if source in ranges:
            ranges[alias], outside[alias] = ranges[source], outside[source]
    equalized = {
        tensor: best
        for tensor, channels in collector.channels.items()
        if tensor in ranges and (best := _equalized(channels, choose, ranges[tensor])) is not None
    }
    return Calibration(ranges, name, done, fingerprint, prepared, samples.label, outside=outside, equalized=equalized)


def _equalized(channels: Channels, choose: Callable[[Statistics], Range], whole: Range) -> Equalized | None:
    """The factors with the least noise of rounding; None if the gain is too small."""
    found: dict[float, Equalized] = {}
    for kept in _KEPT:
        factors = channels.factors(kept)
        if factors is not None:
            seen = channels.divided(factors)
            ends = choose(seen)
            noise = _width(ends) ** 2 * float(np.mean(np.square(factors)))
            outside = seen.share_outside(ends.low, ends.high)
            found[noise] = Equalized(tuple(factors.astype(float).tolist()), ends, outside)
    return found[min(found)] if found and min(found) < _WORTHWHILE * _width(whole) ** 2 else None


def _width(ends: Range) -> float:
    return max(ends.high, 0.0) - min(ends.low, 0.0)


def _blocks(sizes: Mapping[str, int], memory: int) -> list[list[str]]:
    """The names in order, in runs of at most `memory` bytes."""
    blocks: list[list[str]] = []
    room = 0
    for name, size in sizes.items():
        if size > room or not blocks:
            blocks.append([])
            room = memory
        blocks[-1].append(name)
        room -= size
    return blocks


class _Collector:
    """The statistics of tensors, and those that some would have with channels divided by factors."""

    def __init__(self, watched: Watched, channels: Mapping[str, int], *, counts_values: bool) -> None:
        self._watched = watched
        self.channels = {name: Channels(count, counts_values=counts_values) for name, count in channels.items()}
        self._counts_values = counts_values
        self._seen: dict[str, Statistics] = {}

    def add(self, sample: Sample, runners: Sequence[ForwardRunner]) -> None:
        """Computes one sample and records its tensors."""
        for name, values in sample.items():
            self._take(name, values)
        for runner in runners:
            found = runner.run(sample)
            while found:  # each tensor is released after it was recorded
                self._take(*found.popitem())

    def _take(self, name: str, values: Array) -> None:
        if values.dtype.kind != "f" and values.dtype.name != "bfloat16":
            return
        values = np.asarray(values, np.float32)
        if name not in self._seen:
            self._seen[name] = Statistics(counts_values=self._counts_values)
        self._seen[name].add(values)
        if name in self.channels:
            self.channels[name].add(values)

    def usable(self) -> Iterator[tuple[str, Statistics]]:
        """The tensors with a range, in the order of the graph."""
        for name in [*self._watched.inputs, *self._watched.computed]:
            seen = self._seen.get(name)
            if seen is None or seen.is_empty:
                continue
            if seen.is_finite:
                yield name, seen
            else:
                _log.warning("tensor '%s' had values that are not finite, so it gets no range", name)
