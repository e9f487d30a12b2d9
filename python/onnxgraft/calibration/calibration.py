"""The result of a calibration: a value that is written as JSON and identifies the model that it belongs to.

Ranges are those of tensors of the prepared float model, by name.
"""

from __future__ import annotations

import base64
import json
import math
import os
import zlib
from collections.abc import Iterable, Mapping
from dataclasses import dataclass, field, replace
from pathlib import Path
from typing import Any

import numpy as np
import numpy.typing as npt

from onnxgraft.errors import CalibrationError

FORMAT = "onnxgraft-calibration"
VERSION = 1


@dataclass(frozen=True)
class Range:
    """The values that a tensor of the float model takes: finite, `low` <= `high`."""

    low: float
    high: float

    def __post_init__(self) -> None:
        if not (math.isfinite(self.low) and math.isfinite(self.high) and self.low <= self.high):
            raise CalibrationError(f"a range must be two finite numbers in order, not {self.low} .. {self.high}")

    def union(self, other: Range) -> Range:
        """The smallest range that holds both."""
        return Range(min(self.low, other.low), max(self.high, other.high))


@dataclass(frozen=True, eq=False)
class WeightNumbers:
    """The INT8 numbers of a weight that was quantized already: weight = values * scales along `axis`.

    Attributes:
        values: INT8, in the shape of the float initializer.
        scales: float32, one element, or one for each index of `axis`.
        axis: The axis that the scales run along; None with one scale.
    """

    values: npt.NDArray[np.int8]
    scales: npt.NDArray[np.float32]
    axis: int | None = None

    def __post_init__(self) -> None:
        wanted = 1 if self.axis is None else self.values.shape[self.axis]
        if self.values.dtype != np.int8 or self.scales.shape != (wanted,):
            raise CalibrationError(
                f"a quantized weight must be INT8 with {wanted} scales, not {self.values.dtype} with scales of shape "
                f"{list(self.scales.shape)}"
            )

    def __eq__(self, other: object) -> bool:
        if not isinstance(other, WeightNumbers):
            return NotImplemented
        same = np.array_equal(self.values, other.values) and np.array_equal(self.scales, other.scales)
        return same and self.axis == other.axis

    __hash__ = None  # type: ignore[assignment]

    def floats(self) -> npt.NDArray[np.float32]:
        """The weight that the numbers represent."""
        shape = [1] * self.values.ndim
        if self.axis is not None:
            shape[self.axis] = -1
        return np.asarray(self.values * self.scales.reshape(shape), np.float32)


@dataclass(frozen=True)
class Equalized:
    """A tensor whose channels are divided by factors, so that they have one range.

    Attributes:
        factors: One for each channel, above 0 and at most 1.
        range: The values of the divided tensor.
        outside: The share of its values that the range leaves out, 0 to 1.
    """

    factors: tuple[float, ...]
    range: Range
    outside: float = 0.0

    def __post_init__(self) -> None:
        if not self.factors or not all(0 < factor <= 1 for factor in self.factors):
            raise CalibrationError("factors of channels must be above 0 and at most 1")


@dataclass(frozen=True)
class Calibration:
    """The known numbers that flow through a model.

    Attributes:
        ranges: By tensor of the prepared float model, graph inputs included, initializers excluded.
        method: How the ranges were chosen: "min-max", "percentile 99.99", "mean-square error", "from QDQ".
        samples: The number of samples.
        fingerprint: Of the float model as it was given (`model_fingerprint`).
        prepared: Of the prepared model.
        data: The name of the samples in messages.
        weights: By initializer: numbers of weights that were quantized already in the calibrated model.
        equalized: By tensor: channels that a depthwise `Conv` reads, brought to one range.
        outside: By tensor: the share of the values outside its range, 0 to 1, if values were seen.
    """

    ranges: Mapping[str, Range]
    method: str
    samples: int
    fingerprint: str
    prepared: str = ""
    data: str = ""
    weights: Mapping[str, WeightNumbers] = field(default_factory=dict)
    outside: Mapping[str, float] = field(default_factory=dict)
    equalized: Mapping[str, Equalized] = field(default_factory=dict)

    def check_model(self, fingerprint: str, label: str = "the model") -> None:
        """Raises CalibrationError unless the fingerprint is that of the given or the prepared model."""
        if fingerprint not in {self.fingerprint, self.prepared}:
            raise CalibrationError(
                f"the ranges are of another model: {label} has the fingerprint {fingerprint}, "
                f"they were collected on {self.fingerprint}"
            )

    def merge(self, other: Calibration) -> Calibration:
        """Both together, as if collected on the samples of both. Of ranges that are not extremes, the wider counts.

        Raises:
            CalibrationError: They are of different models or were made in different ways.
        """
        if not self.prepared or self.prepared != other.prepared:
            other.check_model(self.fingerprint, "the first of them")
        if other.method != self.method:
            raise CalibrationError(f"ranges by '{self.method}' and by '{other.method}' cannot be merged")
        ranges = dict(self.ranges)
        for name, found in other.ranges.items():
            ranges[name] = ranges[name].union(found) if name in ranges else found
        weights = {**self.weights, **other.weights}
        samples = self.samples + other.samples
        # The joined range leaves out less than either; the weighted mean of both shares is an upper bound.
        outside = {**self.outside, **other.outside}
        for name in self.outside.keys() & other.outside.keys():
            outside[name] = (self.outside[name] * self.samples + other.outside[name] * other.samples) / max(samples, 1)
        # Factors come from the samples. Ranges of differently divided channels cannot be joined.
        equalized = {
            name: replace(one, range=one.range.union(two.range), outside=max(one.outside, two.outside))
            for name, one in self.equalized.items()
            if (two := other.equalized.get(name)) is not None and two.factors == one.factors
        }
        data = ", ".join(dict.fromkeys(name for name in (self.data, other.data) if name))
        return replace(
            self, ranges=ranges, samples=samples, data=data, weights=weights, outside=outside, equalized=equalized
        )

    def to_json(self) -> str:
        """One JSON object; `from_json` reads it back without loss."""
        content: dict[str, Any] = {
            "format": FORMAT,
            "version": VERSION,
            "method": self.method,
            "samples": self.samples,
            "fingerprint": self.fingerprint,
            "prepared": self.prepared,
            "data": self.data,
            "ranges": {name: [found.low, found.high] for name, found in self.ranges.items()},
        }
        if self.outside:
            content["outside"] = dict(self.outside)
        if self.equalized:
            content["equalized"] = {name: _equalized_to_json(one) for name, one in self.equalized.items()}
        if self.weights:
            content["weights"] = {name: _weight_to_json(numbers) for name, numbers in self.weights.items()}
        text = json.dumps(content, allow_nan=False)
        # One line per entry: files can be compared and read.
        return text.replace('], "', '],\n"').replace('}, "', '},\n"').replace(': {"', ': {\n"') + "\n"

    @classmethod
    def from_json(cls, text: str) -> Calibration:
        """Reads the output of `to_json`.

        Raises:
            CalibrationError: The text is something else; the message says where.
        """
        try:
            content = json.loads(text)
        except ValueError as error:
            raise CalibrationError(f"not a calibration: not JSON ({error})") from None
        if not isinstance(content, dict) or content.get("format") != FORMAT:
            raise CalibrationError(f'not a calibration: "format" must be "{FORMAT}"')
        if content.get("version") != VERSION:
            raise CalibrationError(f"a calibration of version {content.get('version')}: this release reads {VERSION}")
        return cls(
            ranges={name: _range(name, pair) for name, pair in _entries(content, "ranges")},
            method=_typed(content, "method", str),
            samples=_typed(content, "samples", int),
            fingerprint=_typed(content, "fingerprint", str),
            prepared=_typed(content, "prepared", str),
            data=_typed(content, "data", str),
            outside={name: _share(name, share) for name, share in _entries(content, "outside", {})},
            equalized={name: _equalized(name, one) for name, one in _entries(content, "equalized", {})},
            weights={name: _weight(name, numbers) for name, numbers in _entries(content, "weights", {})},
        )


def merged(calibrations: Iterable[Calibration]) -> Calibration:
    """All of them as one.

    Raises:
        CalibrationError: There is none, or two do not belong together.
    """
    result: Calibration | None = None
    for calibration in calibrations:
        result = calibration if result is None else result.merge(calibration)
    if result is None:
        raise CalibrationError("there is no calibration to merge")
    return result


def read_calibration(path: str | os.PathLike[str]) -> Calibration:
    """Reads a file that `to_json` was written to.

    Raises:
        CalibrationError: It cannot be read or is something else.
    """
    try:
        return Calibration.from_json(Path(path).read_text(encoding="utf-8"))
    except OSError as error:
        raise CalibrationError(f"cannot read '{path}': {error.strerror}") from None
    except UnicodeDecodeError:
        raise CalibrationError(f"'{path}' is not a calibration: it is not text") from None
    except CalibrationError as error:
        raise CalibrationError(f"'{path}' is {error}") from None


def _typed(content: Mapping[str, Any], key: str, kind: type) -> Any:
    value = content.get(key)
    if not isinstance(value, kind) or isinstance(value, bool):
        raise CalibrationError(f'not a calibration: "{key}" must be {"a number" if kind is int else "a text"}')
    return value


def _entries(content: Mapping[str, Any], key: str, default: Any = None) -> Iterable[tuple[str, Any]]:
    found = content.get(key, default)
    if not isinstance(found, dict):
        raise CalibrationError(f'not a calibration: "{key}" must be an object by tensor name')
    return found.items()


def _numbers(name: str, values: Any) -> tuple[float, ...]:
    if isinstance(values, list) and all(isinstance(value, int | float) and math.isfinite(value) for value in values):
        return tuple(float(value) for value in values)
    raise CalibrationError(f"not a calibration: tensor '{name}' must have finite numbers")


def _range(name: str, pair: Any) -> Range:
    values = _numbers(name, pair)
    if len(values) != 2 or values[0] > values[1]:
        raise CalibrationError(f"not a calibration: the range of tensor '{name}' must be two numbers in order")
    return Range(*values)


def _share(name: str, share: Any) -> float:
    if isinstance(share, int | float) and 0 <= share <= 1:
        return float(share)
    raise CalibrationError(f"not a calibration: the share outside the range of tensor '{name}' must be from 0 to 1")


def _equalized_to_json(one: Equalized) -> dict[str, Any]:
    return {"factors": list(one.factors), "range": [one.range.low, one.range.high], "outside": one.outside}


def _equalized(name: str, content: Any) -> Equalized:
    try:
        factors, pair, outside = (content[key] for key in ("factors", "range", "outside"))
        return Equalized(_numbers(name, factors), _range(name, pair), _share(name, outside))
    except (KeyError, TypeError, CalibrationError) as error:
        raise CalibrationError(f"not a calibration: the channels of tensor '{name}' are broken ({error})") from None


def _weight_to_json(numbers: WeightNumbers) -> dict[str, Any]:
    return {
        "shape": list(numbers.values.shape),
        "axis": numbers.axis,
        "scales": numbers.scales.tolist(),
        "int8": base64.b64encode(zlib.compress(numbers.values.tobytes(), 6)).decode("ascii"),
    }


def _weight(name: str, numbers: Any) -> WeightNumbers:
    try:
        values = np.frombuffer(zlib.decompress(base64.b64decode(numbers["int8"], validate=True)), np.int8)
        scales = np.asarray(numbers["scales"], np.float32)
        return WeightNumbers(values.reshape(numbers["shape"]), scales, numbers["axis"])
    except (KeyError, TypeError, ValueError, IndexError, zlib.error, CalibrationError) as error:
        reason = " ".join(str(error).split())
        raise CalibrationError(f"not a calibration: the numbers of weight '{name}' are broken ({reason})") from None
