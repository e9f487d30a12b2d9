"""Tensors whose bytes are in a file beside the model: checking that they are there, and moving them to a new file.

Nothing is read into memory as a whole: a large model passes through in pieces.
"""

from __future__ import annotations

import stat
from collections.abc import Iterator
from contextlib import ExitStack
from dataclasses import dataclass
from pathlib import Path
from typing import BinaryIO

import onnx
from onnx.external_data_helper import ExternalDataInfo, uses_external_data

from onnxgraft.errors import ModelFileError
from onnxgraft.tensors import stored_tensors

# Smaller tensors stay in the model file: a reference to them would be about as long.
SMALLEST_EXTERNAL = 1024
_PAGE = 4096
_PIECE = 1 << 20


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


def move_to_file(model: onnx.ModelProto, folder: Path, stream: BinaryIO, location: str) -> int:
    """Writes every external tensor and every large one to `stream` and makes the model refer to `location`.

    The model changes only after all bytes are written. Offsets of a page and more are multiples of the page size, as
    memory maps want them.

    Args:
        model: The model, changed in place.
        folder: The folder that the present locations start from.
        stream: The new data file, empty.
        location: Its name, relative to the folder of the model that will be saved.

    Returns:
        The size of the data file; 0 if all tensors are small and stay in the model.
    """
    moved: list[tuple[onnx.TensorProto, int, int]] = []
    end = 0
    with ExitStack() as stack:
        sources: dict[Path, BinaryIO] = {}
        for tensor in stored_tensors(model):
            if uses_external_data(tensor):
                extent = locate(tensor, folder)
                if extent.file not in sources:
                    sources[extent.file] = stack.enter_context(extent.file.open("rb"))
                pieces, length = _read(sources[extent.file], extent), extent.length
            elif len(raw := tensor.raw_data) >= SMALLEST_EXTERNAL:
                pieces, length = iter([raw]), len(raw)
            else:
                continue
            start = _aligned(end, length)
            stream.write(bytes(start - end))
            for piece in pieces:
                stream.write(piece)
            end = start + length
            moved.append((tensor, start, length))
    for tensor, start, length in moved:
        _refer(tensor, location, start, length)
    return end


def _aligned(offset: int, length: int) -> int:
    step = _PAGE if length >= _PAGE else 64
    return -(-offset // step) * step


def _read(source: BinaryIO, extent: Extent) -> Iterator[bytes]:
    source.seek(extent.offset)
    left = extent.length
    while left:
        piece = source.read(min(left, _PIECE))
        if not piece:
            raise ModelFileError(f"'{extent.file}' became shorter while it was read")
        left -= len(piece)
        yield piece


def _refer(tensor: onnx.TensorProto, location: str, offset: int, length: int) -> None:
    del tensor.external_data[:]
    for key, value in (("location", location), ("offset", str(offset)), ("length", str(length))):
        tensor.external_data.add(key=key, value=value)
    tensor.data_location = onnx.TensorProto.EXTERNAL
    tensor.ClearField("raw_data")
