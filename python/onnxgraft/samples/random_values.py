"""Random values for the inputs of a graph: the same for the same seed, name and shape.

Floating-point numbers have the standard normal distribution. Integers are valid for their readers: row numbers of the
table in which they are looked up, otherwise 0 and 1; a mask is ones, then zeros. Eight-bit integers use the full range.
"""

from __future__ import annotations

import difflib
import math
import zlib
from collections.abc import Iterable, Iterator, Mapping
from dataclasses import dataclass
from itertools import chain
from typing import Any

import numpy as np
import numpy.typing as npt
import onnx
from onnx import TensorProto, TypeProto, helper

from onnxgraft.errors import VerificationError
from onnxgraft.samples.readers import Readers

Array = npt.NDArray[Any]

_LARGEST = 2**31  # elements of one input
_CHANNELS, _PICTURE, _OTHER = 3, 64, 16
_COUNTED_IN_BITS = {"int8", "uint8"}


@dataclass(frozen=True)
class Input:
    """One graph input. `rows` is the size of the table in which its values are looked up, if there is one."""

    name: str
    dtype: np.dtype[Any]
    shape: tuple[int, ...]
    rows: int | None

    def __str__(self) -> str:
        return f"{self.dtype.name}[{','.join(map(str, self.shape))}]"


def inputs_of(model: onnx.ModelProto, sizes: Mapping[str, int]) -> dict[str, Input]:
    """The inputs without initializer.

    Args:
        model: The model.
        sizes: Sizes of symbolic dimensions by name, or of any unknown one as "input[axis]".

    Raises:
        VerificationError: An input has no shape or a type without random values, or a size is wrong or unused.
    """
    graph = model.graph
    constants = {tensor.name for tensor in graph.initializer}
    values = [value for value in graph.input if value.name not in constants]
    symbols = _symbols(values)
    for name, size in sizes.items():
        if name not in symbols:
            raise VerificationError(f"no dimension is called '{name}': {_known(name, symbols)}")
        if size < 1:
            raise VerificationError(f"the size of '{name}' must be 1 or more, not {size}")
    readers = Readers(graph)
    chosen = dict(sizes)
    return {value.name: _input(value, readers, chosen) for value in values}


def random_values(inputs: Mapping[str, Input], seed: int) -> dict[str, Array]:
    """A value for each input."""
    values = {}
    for name, wanted in inputs.items():
        rng = np.random.default_rng([seed, zlib.crc32(name.encode())])
        values[name] = np.asarray(_draw(wanted, rng)).astype(wanted.dtype)
    return values


def given_values(
    model: onnx.ModelProto, samples: Iterable[Mapping[str, Array]]
) -> tuple[Iterator[Mapping[str, Array]], dict[str, Input]]:
    """Checks samples one by one.

    Args:
        model: The model that declares the inputs.
        samples: For each run an array for every input without initializer.

    Returns:
        The samples, and a description of the inputs from the first one.

    Raises:
        VerificationError: There is no sample, or a sample does not have an input or does not fit it. An error in a
            later sample is raised when that sample is reached.
    """
    constants = {tensor.name for tensor in model.graph.initializer}
    declared = {value.name: value.type.tensor_type for value in model.graph.input if value.name not in constants}
    checked = (_checked(declared, sample, number) for number, sample in enumerate(samples, 1))
    first = next(checked, None)
    if first is None:
        raise VerificationError("no inputs were given: there are no samples")
    return chain([first], checked), {name: Input(name, v.dtype, v.shape, None) for name, v in first.items()}


def _checked(declared: Mapping[str, TypeProto.Tensor], sample: Mapping[str, Array], number: int) -> Mapping[str, Array]:
    for name in sample:
        if name not in declared:
            known = ", ".join(difflib.get_close_matches(name, declared, n=3) or list(declared)[:6])
            raise VerificationError(f"sample {number}: the model before has no input '{name}', but {known}")
    for name, tensor in declared.items():
        if name not in sample:
            raise VerificationError(f"sample {number} has no array for the input '{name}'")
        dtype, shape = sample[name].dtype, sample[name].shape
        if dtype != helper.tensor_dtype_to_np_dtype(tensor.elem_type):
            wanted = TensorProto.DataType.Name(tensor.elem_type).lower()
            raise VerificationError(f"sample {number}: the input '{name}' has type {wanted}, its array {dtype.name}")
        sizes = [dim.dim_value for dim in tensor.shape.dim]
        fits = len(sizes) == len(shape) and all(a <= 0 or a == b for a, b in zip(sizes, shape, strict=True))
        if tensor.HasField("shape") and not fits:
            described = ",".join(str(dim.dim_param or dim.dim_value or "?") for dim in tensor.shape.dim)
            raise VerificationError(
                f"sample {number}: the input '{name}' has shape [{described}], its array {list(shape)}"
            )
    return sample


def _draw(wanted: Input, rng: np.random.Generator) -> Array:
    kind, shape = wanted.dtype.kind, wanted.shape
    if kind not in "biu":
        return rng.standard_normal(shape)
    if "mask" in wanted.name.lower() and wanted.rows is None:
        return _mask(shape)
    if kind == "b" or (wanted.rows is None and wanted.dtype.name not in _COUNTED_IN_BITS):
        return rng.integers(0, 2, shape)
    if wanted.rows is not None:
        return rng.integers(0, max(1, min(wanted.rows, np.iinfo(wanted.dtype).max)), shape)
    limits = np.iinfo(wanted.dtype)
    return rng.integers(limits.min, limits.max, shape, endpoint=True)


def _mask(shape: tuple[int, ...]) -> Array:
    """Ones in the first three quarters of the last axis."""
    length = shape[-1] if shape else 1
    return np.broadcast_to(np.arange(length) < math.ceil(length * 0.75), shape)


def _symbols(values: list[onnx.ValueInfoProto]) -> list[str]:
    found = []
    for value in values:
        for axis, dim in enumerate(value.type.tensor_type.shape.dim):
            if not dim.dim_value > 0:
                found += [f"{value.name}[{axis}]", *([dim.dim_param] if dim.dim_param else [])]
    return list(dict.fromkeys(found))


def _known(name: str, symbols: list[str]) -> str:
    if not symbols:
        return "all sizes of the inputs are fixed"
    similar = difflib.get_close_matches(name, symbols, n=3) or symbols[:6]
    return f"did you mean {' or '.join(similar)}?"


def _input(value: onnx.ValueInfoProto, readers: Readers, chosen: dict[str, int]) -> Input:
    """Chosen sizes are added to `chosen`, so that a symbol has one size everywhere."""
    tensor = value.type.tensor_type
    if value.type.WhichOneof("value") != "tensor_type" or tensor.elem_type in {TensorProto.STRING, 0}:
        raise VerificationError(f"input '{value.name}' has no random values: only tensors of numbers have them")
    if not tensor.HasField("shape"):
        raise VerificationError(f"input '{value.name}' has no shape: the model must declare one, symbolic or not")
    dtype = np.dtype(helper.tensor_dtype_to_np_dtype(tensor.elem_type))
    shape: list[int] = []
    dims = tensor.shape.dim
    for axis, dim in enumerate(dims):
        size: int | None = dim.dim_value if dim.dim_value > 0 else chosen.get(f"{value.name}[{axis}]")
        if size is None:
            size = chosen.get(dim.dim_param) if dim.dim_param else None
        if size is None:
            needed = readers.needed_size(value.name, axis, len(dims))
            size = needed or _usual_size(axis, len(dims), dtype)
            if dim.dim_param:
                chosen[dim.dim_param] = size
        shape.append(size)
    if math.prod(shape) > _LARGEST:
        raise VerificationError(f"input '{value.name}' would have {math.prod(shape)} elements: give smaller sizes")
    return Input(value.name, dtype, tuple(shape), readers.number_of_rows(value.name) if dtype.kind in "iu" else None)


def _usual_size(axis: int, rank: int, dtype: np.dtype[Any]) -> int:
    if axis == 0:
        return 1
    if rank == 4 and dtype.kind not in "i":
        return _CHANNELS if axis == 1 else _PICTURE
    return _OTHER
