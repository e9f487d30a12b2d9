"""A text that identifies a float model, the same in each process.

It is computed from the trained numbers, in any order and under any name, and from the names of the graph's inputs and
outputs. So it stays the same if a tensor is only renamed, transposed or stored in another way; preparation steps that
compute new weights change it.
"""

from __future__ import annotations

import hashlib
import os
from collections.abc import Iterator
from typing import Any

import numpy as np
import numpy.typing as npt
import onnx

from onnxgraft.errors import CalibrationError
from onnxgraft.graph.tensor_values import read_values

_FLOATS = (onnx.TensorProto.FLOAT, onnx.TensorProto.FLOAT16, onnx.TensorProto.DOUBLE, onnx.TensorProto.BFLOAT16)
# Smaller constants depend on the form that an exporter writes.
_SMALLEST = 8
_BLOCK = 1 << 16
_FIRST_FACTOR, _SECOND_FACTOR = np.uint64(0x9E3779B97F4A7C15), np.uint64(0xBF58476D1CE4E5B9)


def model_fingerprint(model: onnx.ModelProto, folder: str | os.PathLike[str] | None = None) -> str:
    """The fingerprint of a float model: 32 hexadecimal digits.

    Args:
        model: The model.
        folder: The folder that the locations of external tensors start from; None is the current one.

    Raises:
        CalibrationError: A weight cannot be read.
    """
    graph = model.graph
    constants = {tensor.name for tensor in graph.initializer}
    lines = {f"weight {line}" for line in _weights(graph, os.fspath(folder) if folder is not None else ".")}
    lines |= {f"input {value.name}" for value in graph.input if value.name not in constants}
    lines |= {f"output {value.name}" for value in graph.output}
    return hashlib.blake2b("\n".join(sorted(lines)).encode(), digest_size=16).hexdigest()


def _weights(graph: onnx.GraphProto, folder: str) -> Iterator[str]:
    for tensor in _tensors(graph):
        if tensor.data_type in _FLOATS and int(np.prod(tensor.dims)) >= _SMALLEST:
            values = read_values(tensor, folder)
            if values is None:
                raise CalibrationError(f"the values of weight '{tensor.name}' cannot be read")
            yield f"{tensor.data_type} {values.size} {_mixed(values):016x}"


def _tensors(graph: onnx.GraphProto) -> Iterator[onnx.TensorProto]:
    yield from graph.initializer
    for node in graph.node:
        if node.op_type == "Constant":
            yield from (attribute.t for attribute in node.attribute if attribute.HasField("t"))


def _mixed(values: npt.NDArray[Any]) -> int:
    """A sum over mixed bits of each element, so that a transposed weight gives the same."""
    bits = np.ascontiguousarray(values).reshape(-1).view(f"u{values.itemsize}")
    total = np.uint64(0)
    with np.errstate(over="ignore"):
        for start in range(0, bits.size, _BLOCK):
            mixed = (bits[start : start + _BLOCK].astype(np.uint64) + np.uint64(1)) * _FIRST_FACTOR
            mixed ^= mixed >> np.uint64(29)
            mixed *= _SECOND_FACTOR
            mixed ^= mixed >> np.uint64(32)
            total += mixed.sum(dtype=np.uint64)
    return int(total)
