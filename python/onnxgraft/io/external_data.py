"""Tensors whose bytes are in a file next to the model: where they are, and whether they exist."""

from __future__ import annotations

import hashlib
import stat
from dataclasses import dataclass
from pathlib import Path

import onnx
from onnx.external_data_helper import ExternalDataInfo, uses_external_data

from onnxgraft.errors import ModelFileError
from onnxgraft.graph.tensors import VALUE_FIELDS, stored_tensors
from onnxgraft.io.file_kinds import HEAD, is_lfs_pointer

_LONGEST_SHOWN = 80
_BLOCK = 1 << 20
DIGEST_SIZE = 16


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
        raise ModelFileError(f"{subject}: offset and length must be whole numbers ({error})") from None
    file = folder / _checked_location(reference.location, folder, subject)
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
            + (": it is a Git LFS pointer, not the file itself; run `git lfs pull`" if _is_pointer(file) else "")
        )
    return Extent(file, offset, length)


def _checked_location(location: str | bytes, folder: Path, subject: str) -> str:
    """The location of a file in `folder` or a folder below it, of whatever kind."""
    if isinstance(location, bytes):
        raise ModelFileError(f"{subject}: the location {location!r} is not UTF-8")
    if not location:
        raise ModelFileError(f"{subject}: it has no location, which must be a file in the model's folder")
    if "\0" in location:
        raise ModelFileError(f"{subject}: the location '{location}' must not contain a NUL")
    file = folder / location
    try:
        is_inside = file.resolve().is_relative_to(folder.resolve()) and not file.is_symlink()
    except (OSError, RuntimeError, ValueError) as error:  # too long, a link to itself, not encodable
        shown = location if len(location) <= _LONGEST_SHOWN else f"{location[:_LONGEST_SHOWN]}..."
        reason = getattr(error, "strerror", None) or error
        raise ModelFileError(f"{subject}: the location '{shown}' cannot be followed: {reason}") from None
    if not is_inside:
        raise ModelFileError(f"{subject}: the location '{location}' must be a file in the model's folder, not a link")
    return location


def _is_pointer(file: Path) -> bool:
    try:
        with file.open("rb") as stream:
            return is_lfs_pointer(stream.read(HEAD))
    except OSError:
        return False


def data_files_of(model: onnx.ModelProto, folder: Path) -> set[Path]:
    """The files that the model refers to, whether they exist or not."""
    locations = {
        entry.value
        for tensor in stored_tensors(model)
        if uses_external_data(tensor)
        for entry in tensor.external_data
        if entry.key == "location"
    }
    return {folder / location for location in locations}


def digest_of_extent(extent: Extent) -> str:
    """A text that is equal for equal bytes, in any file; read block by block.

    Raises:
        ModelFileError: The file cannot be read.
    """
    hashed, left = hashlib.blake2b(digest_size=DIGEST_SIZE), extent.length
    try:
        with extent.file.open("rb", buffering=0) as stream:
            stream.seek(extent.offset)
            while left and (block := stream.read(min(left, _BLOCK))):
                hashed.update(block)
                left -= len(block)
    except OSError as error:
        raise ModelFileError(f"cannot read '{extent.file}': {error.strerror}") from error
    return hashed.hexdigest()


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
