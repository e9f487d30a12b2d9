"""Values of tensors, in whichever way they are stored."""

from __future__ import annotations

import logging
from collections.abc import Mapping
from typing import Any

import numpy as np
from numpy.typing import NDArray
from onnx import GraphProto, TensorProto, helper, numpy_helper
from onnx.checker import ValidationError
from onnx.external_data_helper import uses_external_data

from onnxgraft.transform_utilities import external_data_folder, get_init

Array = NDArray[Any]

# Element types that are stored in NumPy's form: those of nearly all weights.
_PLAIN: Mapping[int, np.dtype[Any]] = {
    TensorProto.FLOAT: np.dtype("<f4"),
    TensorProto.INT8: np.dtype("<i1"),
    TensorProto.INT32: np.dtype("<i4"),
    TensorProto.INT64: np.dtype("<i8"),
}

LOG = logging.getLogger(__name__)


def read_values(tensor: TensorProto, folder: str) -> Array | None:
    """The values of a tensor, None if they cannot be read.

    None as well if NumPy has no such element type, so that converting them back would give another type.
    """
    try:
        plain = _PLAIN.get(tensor.data_type)
        if plain is not None and _is_raw(tensor):  # as onnx reads it, in a fifth of the time
            return np.frombuffer(tensor.raw_data, plain).reshape(tensor.dims)
        array = _map(tensor, folder) if uses_external_data(tensor) else numpy_helper.to_array(tensor)
        same_type = helper.np_dtype_to_tensor_dtype(array.dtype) == tensor.data_type
    except (OSError, ValueError, TypeError, KeyError, ValidationError) as error:
        reason = " ".join(str(error).split())
        LOG.warning("readers of tensor '%s' stay as they are, since its values cannot be read: %s", tensor.name, reason)
        return None
    return array if same_type else None


def _is_raw(tensor: TensorProto) -> bool:
    return tensor.HasField("raw_data") and not tensor.HasField("segment") and not uses_external_data(tensor)


def _map(tensor: TensorProto, folder: str) -> Array:
    """The values in the file, mapped. The graph's tensor stays a reference, which onnx would turn into a copy."""
    with external_data_folder(folder):
        return get_init(GraphProto(initializer=[tensor]), [tensor.name])[0][0]
