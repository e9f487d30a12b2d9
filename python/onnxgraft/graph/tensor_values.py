"""Values of tensors, in whichever way they are stored."""

from __future__ import annotations

import logging
from typing import Any

from numpy.typing import NDArray
from onnx import GraphProto, TensorProto, helper, numpy_helper
from onnx.checker import ValidationError
from onnx.external_data_helper import uses_external_data

from onnxgraft.transform_utilities import external_data_folder, get_init

Array = NDArray[Any]

LOG = logging.getLogger(__name__)


def read_values(tensor: TensorProto, folder: str) -> Array | None:
    """The values of a tensor, None if they cannot be read.

    None as well if NumPy has no such element type, so that converting them back would give another type.
    """
    try:
        array = _map(tensor, folder) if uses_external_data(tensor) else numpy_helper.to_array(tensor)
        same_type = helper.np_dtype_to_tensor_dtype(array.dtype) == tensor.data_type
    except (OSError, ValueError, TypeError, KeyError, ValidationError) as error:
        reason = " ".join(str(error).split())
        LOG.warning("readers of tensor '%s' stay as they are, since its values cannot be read: %s", tensor.name, reason)
        return None
    return array if same_type else None


def _map(tensor: TensorProto, folder: str) -> Array:
    """The values in the file, mapped. The graph's tensor stays a reference, which onnx would turn into a copy."""
    with external_data_folder(folder):
        return get_init(GraphProto(initializer=[tensor]), [tensor.name])[0][0]
