"""Initializers and attributes that make sense to the operators that read them, as tables.

Quantized operators have INT8 weights and INT32 biases, `TesselDequant` has packed scales. For everything else the
operator's ONNX schema decides, so that callbacks find the element types and attributes that they may expect.
"""

from __future__ import annotations

import random
from collections.abc import Callable, Mapping
from dataclasses import dataclass
from typing import Any

import numpy as np
import numpy.typing as npt
import onnx

Array = npt.NDArray[Any]


@dataclass(frozen=True)
class Dimensions:
    """Sizes that all tensors of one graph agree on."""

    channels: int
    kernel: int
    image: int = 8


class Furnisher:
    """Makes values; all randomness comes from `rng`."""

    def __init__(self, rng: random.Random) -> None:
        self.rng = rng
        self.sizes = Dimensions(rng.choice((2, 4, 6)), rng.choice((1, 1, 1, 3)))
        self._values = np.random.default_rng(rng.randrange(2**32))

    def initializer(self, op: str, slot: int, *, quantized: bool, inputs: int) -> Array:
        """A value for input `slot` of an operator with that many inputs."""
        make = _CONTENTS.get((op, slot), _CONTENTS.get((op, -1)))
        return make(self, quantized, inputs) if make else self._by_schema(op, slot)

    def attributes(self, op: str) -> dict[str, Any]:
        """Attributes of a node, at least those that its schema requires."""
        if op in _ATTRIBUTES:
            return _ATTRIBUTES[op](self)
        schema = _schema(op)
        required = {} if schema is None else {n: _kind(a) for n, a in schema.attributes.items() if a.required}
        return {name: _ANY_VALUE[kind] for name, kind in required.items() if kind in _ANY_VALUE}

    def floats(self, *shape: int) -> Array:
        """Values of either sign."""
        return self._values.standard_normal(shape).astype(np.float32)

    def integers(self, dtype: Any, low: int, high: int, *shape: int) -> Array:
        """Values from `low` to `high`."""
        return self._values.integers(low, high, shape, endpoint=True).astype(dtype)

    def scales(self) -> Array:
        """One 32-bit float scale in the low half of each 64-bit word."""
        count = self.rng.choice((1, self.sizes.channels, self.sizes.channels))
        scales = self._values.uniform(0.001, 0.1, count).astype(np.float32)
        return scales.view(np.uint32).astype(np.uint64)

    def _by_schema(self, op: str, slot: int) -> Array:
        schema = _schema(op)
        formal = [] if schema is None else list(schema.inputs)
        types: set[str] = set(formal[min(slot, len(formal) - 1)].types) if formal else set()
        if types and "tensor(float)" not in types:
            return self.integers(np.bool_ if "tensor(bool)" in types else np.int64, 0, 1, 1)
        channels = self.sizes.channels
        return self.floats(*self.rng.choice(((1,), (channels,), (channels, 1, 1), (channels, channels))))


def _kind(attribute: onnx.defs.OpSchema.Attribute) -> str:
    return str(attribute.type).rpartition(".")[2]


def _schema(op: str) -> onnx.defs.OpSchema | None:
    return onnx.defs.get_schema(op) if onnx.defs.has(op) else None


def _weight(f: Furnisher, quantized: bool, _inputs: int) -> Array:
    shape = (f.sizes.channels, f.sizes.channels, f.sizes.kernel, f.sizes.kernel)
    return f.integers(np.int8, -128, 127, *shape) if quantized else f.floats(*shape)


def _matrix(f: Furnisher, quantized: bool, _inputs: int) -> Array:
    shape = (f.sizes.channels, f.sizes.channels)
    return f.integers(np.int8, -128, 127, *shape) if quantized else f.floats(*shape)


def _bias(f: Furnisher, quantized: bool, _inputs: int) -> Array:
    return f.integers(np.int32, -9999, 9999, f.sizes.channels) if quantized else f.floats(f.sizes.channels)


def _vector(f: Furnisher, _quantized: bool, _inputs: int) -> Array:
    return np.abs(f.floats(f.sizes.channels))


def _none(_f: Furnisher, _quantized: bool, _inputs: int) -> Array:
    return np.zeros(0, np.float32)


def _resize_scales(_f: Furnisher, _quantized: bool, inputs: int) -> Array:
    return np.array([1, 1, 2, 2] if inputs == 3 else [], np.float32)


def _sizes(f: Furnisher, _quantized: bool, _inputs: int) -> Array:
    return np.array([1, f.sizes.channels, 2 * f.sizes.image, 2 * f.sizes.image], np.int64)


def _extent(f: Furnisher, _quantized: bool, _inputs: int) -> Array:
    return np.array([f.sizes.image], np.int64)


def _pads(f: Furnisher, _quantized: bool, _inputs: int) -> Array:
    return f.integers(np.int64, 0, 1, 8)


def _scalar(f: Furnisher, _quantized: bool, _inputs: int) -> Array:
    return f.floats()


def _index(f: Furnisher, _quantized: bool, _inputs: int) -> Array:
    return f.integers(np.int64, 0, 2, 1)


# By operator and input; -1 means all others.
_CONTENTS: Mapping[tuple[str, int], Callable[[Furnisher, bool, int], Array]] = {
    ("Conv", 1): _weight,
    ("Conv", 2): _bias,
    ("ConvTranspose", 1): _weight,
    ("ConvTranspose", 2): _bias,
    ("Gemm", 1): _matrix,
    ("Gemm", 2): _bias,
    ("MatMul", -1): _matrix,
    ("BatchNormalization", -1): _vector,
    ("PRelu", 1): _vector,
    ("TesselDequant", 1): lambda f, _quantized, _inputs: f.scales(),
    ("Resize", 1): _none,
    ("Resize", 2): _resize_scales,
    ("Resize", 3): _sizes,
    ("Slice", -1): _index,
    ("Gather", 1): _index,
    ("Pad", 1): _pads,
    ("Pad", 2): _scalar,
    ("Clip", -1): _scalar,
    ("Dropout", 1): _scalar,
    ("Dropout", 2): lambda _f, _quantized, _inputs: np.zeros((), np.bool_),
    ("Reshape", 1): _sizes,
    ("Concat", -1): _extent,
}


def _convolution(f: Furnisher) -> dict[str, Any]:
    size = f.sizes.kernel
    attributes: dict[str, Any] = {"group": 1, "kernel_shape": [size, size]}
    return attributes | ({"pads": [size // 2] * 4} if f.rng.random() < 0.5 else {})


_ATTRIBUTES: Mapping[str, Callable[[Furnisher], dict[str, Any]]] = {
    "TesselQuant": lambda f: {"scale": f.rng.choice((0.5, 0.5, 0.25)), "offset": f.rng.choice((0.0, 0.0, 0.0, 2.0))},
    "Conv": _convolution,
    "ConvTranspose": _convolution,
    "MaxPool": lambda _: {"kernel_shape": [3, 3], "pads": [1, 1, 1, 1]},
    "AveragePool": lambda _: {"kernel_shape": [3, 3], "pads": [1, 1, 1, 1]},
    "Gemm": lambda f: f.rng.choice(({}, {"transB": 1})),
    "Concat": lambda _: {"axis": 1},
    "LeakyRelu": lambda _: {"alpha": 0.125},
    "Resize": lambda _: {"mode": "nearest"},
    "Transpose": lambda f: {"perm": f.rng.sample(range(4), 4)},
    "Cast": lambda _: {"to": onnx.TensorProto.FLOAT},
}

_ANY_VALUE: Mapping[str, Any] = {"INT": 1, "FLOAT": 1.0, "STRING": "", "INTS": [1], "FLOATS": [1.0]}
