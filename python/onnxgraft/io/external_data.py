"""Tensors whose bytes are in a file beside the model: where they are, and whether they are there."""

from __future__ import annotations

import stat
from dataclasses import dataclass
from pathlib import Path

import onnx
from onnx.external_data_helper import ExternalDataInfo, uses_external_data

from onnxgraft.errors import ModelFileError
from onnxgraft.graph.tensors import VALUE_FIELDS, stored_tensors


@dataclass(frozen=True)
class Extent:
    """A run of bytes in a file."""

    file: Path
    offset: int
    length: int


def has_external_data(model: onnx.ModelProto) -> bool:
    """Whether any tensor of the model is stored outside of it."""
    return any(uses_external_data(tensor) for tensor in stored_tensors(model))


def locate(tensor: onnx.TensorProto, folder: Path) -> Extent:
    """Where the bytes of an external tensor are.

    Raises:
        ModelFileError: The reference is not usable: no such file, outside of `folder`, beyond the end of the file.
    """
    subject = f"external data of tensor '{tensor.name}'"
    try:
        reference = ExternalDataInfo(tensor)
    except ValueError as error:
        raise ModelFileError(f"{subject}: offset and length have to be whole numbers ({error})") from None
    file = folder / reference.location
    if not reference.location or not file.resolve().is_relative_to(folder.resolve()) or file.is_symlink():
        raise ModelFileError(
            f"{subject}: the location '{reference.location}' has to be a file in the model's folder, and no link"
        )
    try:
        status = file.stat()
    except OSError as error:
        raise ModelFileError(f"{subject}: cannot read '{file}': {error.strerror}") from error
    if not stat.S_ISREG(status.st_mode):
        raise ModelFileError(f"{subject}: '{file}' is not a regular file")
    offset = reference.offset or 0
    length = reference.length if reference.length is not None else status.st_size - offset
    if offset < 0 or length < 0 or offset + length > status.st_size:
        raise ModelFileError(
            f"{subject}: '{file}' has {status.st_size} bytes, but the tensor takes {length} from byte {offset}"
        )
    return Extent(file, offset, length)


def check_external_data(model: onnx.ModelProto, folder: Path) -> None:
    """Raises ModelFileError for the first external tensor that cannot be read."""
    for tensor in stored_tensors(model):
        if uses_external_data(tensor):
            locate(tensor, folder)


def refer(tensor: onnx.TensorProto, location: str, offset: int, length: int) -> None:
    """Makes `tensor` refer to bytes in a file instead of holding values."""
    del tensor.external_data[:]
    for key, value in (("location", location), ("offset", str(offset)), ("length", str(length))):
        tensor.external_data.add(key=key, value=value)
    tensor.data_location = onnx.TensorProto.EXTERNAL
    for field in VALUE_FIELDS:
        tensor.ClearField(field)
