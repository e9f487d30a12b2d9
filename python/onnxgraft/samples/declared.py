"""The model's declarations of its inputs, and whether an array fits them."""

from __future__ import annotations

from collections.abc import Sequence
from dataclasses import dataclass
from typing import Any

import numpy as np
import numpy.typing as npt
import onnx

from onnxgraft.errors import DataError

Array = npt.NDArray[Any]


@dataclass(frozen=True)
class DeclaredInput:
    """One graph input. `dims` has None for a size that is not fixed, and is None itself if the rank is not declared."""

    name: str
    dtype: np.dtype[Any]
    dims: tuple[int | None, ...] | None

    def __str__(self) -> str:
        sizes = "..." if self.dims is None else ",".join("?" if dim is None else str(dim) for dim in self.dims)
        return f"{self.dtype.name}[{sizes}]"

    def fits(self, shape: Sequence[int]) -> bool:
        """Whether the input accepts a value of this shape."""
        if self.dims is None:
            return True
        same_rank = len(shape) == len(self.dims)
        return same_rank and all(dim in {None, size} for dim, size in zip(self.dims, shape, strict=True))

    def rows_per_sample(self, values: Array) -> int | None:
        """How an array holds samples.

        Returns:
            The rows of one sample; 0 if the first axis counts samples; None if the array is a sample itself. An array
            that does not fit at all is treated as one sample.
        """
        if self.dims is None:
            return None
        if values.ndim == len(self.dims) + 1 and self.fits(values.shape[1:]):
            return 0
        if self.dims and values.ndim == len(self.dims):
            rows = self.dims[0] or 1
            if len(values) > rows and len(values) % rows == 0 and self.fits((rows, *values.shape[1:])):
                return rows
        return None

    def checked(self, values: Array, place: str) -> Array:
        """The array in the input's element type.

        Raises:
            DataError: It does not fit or has values that are not finite.
        """
        if not self.fits(values.shape):
            found = ",".join(map(str, values.shape))
            raise DataError(f"{place}: the input '{self.name}' is {self}, but the array has shape [{found}]")
        if not _convertible(values.dtype, self.dtype):
            raise DataError(f"{place}: the input '{self.name}' is {self}, but the array has type {values.dtype.name}")
        result = np.ascontiguousarray(values, self.dtype).reshape(values.shape)
        if result.dtype.kind == "f" and not np.isfinite(result).all():
            position = tuple(int(axis[0]) for axis in np.nonzero(~np.isfinite(result)))
            found = f"{result[position]} at {list(position)}"
            raise DataError(f"{place}: the input '{self.name}' has a value that is not finite: {found}")
        return result


def declared_inputs(model: onnx.ModelProto) -> dict[str, DeclaredInput]:
    """The inputs without initializer, in order.

    Raises:
        DataError: One is not a tensor of numbers.
    """
    constants = {tensor.name for tensor in model.graph.initializer}
    return {value.name: _declared(value) for value in model.graph.input if value.name not in constants}


def _declared(value: onnx.ValueInfoProto) -> DeclaredInput:
    tensor = value.type.tensor_type
    if value.type.WhichOneof("value") != "tensor_type" or tensor.elem_type in {onnx.TensorProto.STRING, 0}:
        raise DataError(f"the input '{value.name}' is not a tensor of numbers, so no data can be given for it")
    dims = None
    if tensor.HasField("shape"):
        dims = tuple(dim.dim_value if dim.dim_value > 0 else None for dim in tensor.shape.dim)
    return DeclaredInput(value.name, np.dtype(onnx.helper.tensor_dtype_to_np_dtype(tensor.elem_type)), dims)


def _convertible(found: np.dtype[Any], wanted: np.dtype[Any]) -> bool:
    """Floats of any width, and integers for integers. Integers are not accepted for floats: their scale is unknown."""
    return found == wanted or (found.kind in "f" and wanted.kind == "f") or (found.kind in "iu" and wanted.kind in "iu")
