"""Values of tensors, wherever they are stored."""

from __future__ import annotations

import logging
from typing import Any

from numpy.typing import NDArray
from onnx import TensorProto, helper, numpy_helper
from onnx.checker import ValidationError

Array = NDArray[Any]

LOG = logging.getLogger(__name__)


def read_values(tensor: TensorProto, folder: str) -> Array | None:
    """The values of a tensor, None if they cannot be read.

    None as well if NumPy has no such element type, so that they would not come back as what they are.
    """
    try:
        array: Array = numpy_helper.to_array(tensor, folder)
        same_type = helper.np_dtype_to_tensor_dtype(array.dtype) == tensor.data_type
    except (OSError, ValueError, TypeError, KeyError, ValidationError) as error:
        reason = " ".join(str(error).split())
        LOG.warning("what reads tensor '%s' stays as it is, since its values cannot be read: %s", tensor.name, reason)
        return None
    return array if same_type else None
