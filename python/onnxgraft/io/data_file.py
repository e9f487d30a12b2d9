"""A new file of weights next to a model that is being written.

Its name was free, so no other process maps or reads it, and it only ever grows: appended bytes can be mapped at once.
No model refers to it before it is sealed.
"""

from __future__ import annotations

import errno
import itertools
import os
import re
import shutil
from collections.abc import Iterator
from contextlib import contextmanager, suppress
from pathlib import Path
from typing import BinaryIO

from onnxgraft.errors import ModelFileError
from onnxgraft.io.external_data import Extent
from onnxgraft.io.staged_files import sync_folder

_PAGE = 4096
_PIECE = 1 << 20
# The system cannot copy between these two files by itself.
_NO_COPY = {errno.EXDEV, errno.ENOSYS, errno.EINVAL, errno.EOPNOTSUPP, errno.EPERM, errno.EBADF}


def data_file_names(model: Path) -> Iterator[Path]:
    """The names for data files of the model at that place: model.onnx.data, model.onnx-2.data, model.onnx-3.data ..."""
    yield model.with_name(f"{model.name}.data")
    for number in itertools.count(2):
        yield model.with_name(f"{model.name}-{number}.data")


def own_data_files(model: Path) -> set[Path]:
    """The data files of the model at that place: named like it, and mentioned in it."""
    if not model.exists():
        return set()
    numbered = re.compile(re.escape(model.name) + r"(-[0-9]+)?\.data")
    try:
        found = [path for path in model.parent.iterdir() if numbered.fullmatch(path.name)]
        return {path for path in found if not path.is_symlink() and path.is_file() and _mentions(model, path.name)}
    except OSError:  # a folder or model that cannot be read
        return set()


class DataFile:
    """A data file under the first free name.

    Args:
        model: The place of the model; if it exists, the data file gets its permissions.

    Raises:
        ModelFileError: The file cannot be made.
    """

    def __init__(self, model: Path) -> None:
        self.size = 0
        for path in data_file_names(model):
            self.path = path
            with self._failures():
                try:
                    self._stream: BinaryIO = path.open("xb")
                except FileExistsError:
                    continue
            break
        with suppress(OSError):
            shutil.copymode(model, self.path)

    def append(self, content: bytes) -> int:
        """Writes `content` and returns its offset: a multiple of the page size for a page or more, of 64 below."""
        start = self._skip_to_boundary(len(content))
        with self._failures():
            self._stream.write(content)
            self._stream.flush()
        self.size = start + len(content)
        return start

    def append_extent(self, extent: Extent) -> int:
        """Copies the bytes of another file, by the system if it can, and returns their offset.

        Raises:
            ModelFileError: One of the files fails, or the source became shorter.
        """
        start = self._skip_to_boundary(extent.length)
        with _open_source(extent.file) as source, self._failures():
            source.seek(extent.offset)
            left = _copy_by_system(source, self._stream, extent.length)
            while left:
                piece = source.read(min(left, _PIECE))
                if not piece:
                    raise ModelFileError(f"'{extent.file}' became shorter while it was read")
                self._stream.write(piece)
                left -= len(piece)
            self._stream.flush()
        self.size = start + extent.length
        return start

    def seal(self, in_place_of: DataFile | None = None) -> None:
        """Writes all bytes and the name to disk and closes the file.

        Args:
            in_place_of: Another new file, whose name this one takes.
        """
        with self._failures():
            self._stream.flush()
            # A last tensor without bytes must still lie inside the file.
            self._stream.truncate(self.size)
            os.fsync(self._stream.fileno())
            self._stream.close()
            if in_place_of is not None:
                in_place_of.discard()
                self.path = self.path.rename(in_place_of.path)
        sync_folder(self.path.parent)

    def discard(self) -> None:
        """Removes the file."""
        with suppress(OSError):
            self._stream.close()
        with suppress(OSError):
            self.path.unlink()

    def _skip_to_boundary(self, length: int) -> int:
        step = _PAGE if length >= _PAGE else 64
        start = -(-self.size // step) * step
        self._stream.seek(start)
        return start

    @contextmanager
    def _failures(self) -> Iterator[None]:
        try:
            yield
        except OSError as error:
            raise ModelFileError(f"cannot write '{self.path}': {error.strerror}") from error


def _mentions(model: Path, name: str) -> bool:
    """Whether `model` has a tensor with this location. Its file may be too large to read at once."""
    encoded = os.fsencode(name)
    # As protobuf writes the entry: field 1, the key; field 2, the value; each with its length.
    wanted = b"\n\x08location\x12" + _varint(len(encoded)) + encoded
    rest = b""
    with model.open("rb") as stream:
        while piece := stream.read(_PIECE):
            if wanted in rest + piece:
                return True
            rest = (rest + piece)[-len(wanted) :]
    return False


def _varint(number: int) -> bytes:
    return bytes([number]) if number < 0x80 else bytes([number & 0x7F | 0x80]) + _varint(number >> 7)


def _open_source(file: Path) -> BinaryIO:
    try:
        return file.open("rb", buffering=0)
    except OSError as error:
        raise ModelFileError(f"cannot read '{file}': {error.strerror}") from error


def _copy_by_system(source: BinaryIO, target: BinaryIO, length: int) -> int:
    """Copies from the current position to the current position; returns how many bytes are left to copy."""
    left = length
    while left:
        try:
            copied = os.copy_file_range(source.fileno(), target.fileno(), left)
        except OSError as error:
            if error.errno not in _NO_COPY:
                raise
            return left
        if not copied:
            return left
        left -= copied
    return 0
