"""Files that appear whole or not at all.

A StagedFile is written without a name in the folder of its target; `publish` writes it to disk and gives it its name.
An older file of that name stays whole until then.
"""

from __future__ import annotations

import os
import secrets
import stat
from collections.abc import Sequence
from contextlib import suppress
from pathlib import Path
from types import TracebackType
from typing import BinaryIO

from onnxgraft.errors import ModelFileError

# Where the system lists the open files of this process.
_HANDLES = Path("/proc/self/fd")


class StagedFile:
    """A file being written for `target`. Leaving the context removes temporary files.

    Raises:
        ModelFileError: The target cannot be written, or exists and `overwrite` is false.
    """

    def __init__(self, target: Path, *, overwrite: bool) -> None:
        self.named = target
        self._overwrite = overwrite
        # A link stays a link: the file that it points to is written.
        try:
            self.target = Path(os.path.realpath(target))
        except (OSError, ValueError) as error:  # no current folder, a NUL
            raise ModelFileError(f"cannot write '{target}': {getattr(error, 'strerror', None) or error}") from error
        self.is_in_place = False
        self._temporary = self.target.with_name(f".onnxgraft-{secrets.token_hex(8)}.tmp")
        self._stream: BinaryIO | None = None
        self._has_name = False
        self.check_target()
        # Tests now whether the folder accepts files; a killed process must not leave one behind.
        with self.stream:
            self._forget()

    @property
    def stream(self) -> BinaryIO:
        """The file to which the content is written.

        Raises:
            ModelFileError: The folder accepts no more files.
        """
        if self._stream is None:
            try:
                self._stream = self._open()
            except OSError as error:
                raise ModelFileError(f"cannot write '{self.named}': {error.strerror}") from error
        return self._stream

    def check_target(self) -> None:
        """Raises ModelFileError if the file must not replace the target."""
        try:
            mode = self.target.stat().st_mode
        except FileNotFoundError:
            if not self.target.parent.is_dir():
                raise ModelFileError(f"cannot write '{self.named}': there is no folder '{self.named.parent}'") from None
            return
        except OSError as error:
            raise ModelFileError(f"cannot write '{self.named}': {error.strerror}") from error
        if stat.S_ISDIR(mode):
            raise ModelFileError(f"cannot write '{self.named}': it is a folder")
        if not stat.S_ISREG(mode):
            raise ModelFileError(f"cannot write '{self.named}': it is not a regular file")
        if not self._overwrite:
            raise ModelFileError(f"'{self.named}' exists already; --force overwrites it")

    def is_same_place(self, path: Path) -> bool:
        """Whether `path` leads to the file that this one will replace, by any name or link."""
        try:
            return self.target == Path(os.path.realpath(path)) or self.target.samefile(path)
        except (OSError, ValueError):  # one of them does not exist
            return False

    def seal(self) -> None:
        """Writes all bytes to disk."""
        self.stream.flush()
        with suppress(FileNotFoundError):
            os.fchmod(self.stream.fileno(), stat.S_IMODE(self.target.stat().st_mode))
        os.fsync(self.stream.fileno())

    def take_name(self) -> None:
        """Gives the sealed file a temporary name next to its own."""
        self.check_target()
        if not self._has_name:
            handle = self.stream.fileno()
            # Given a folder's handle, even an unused one, Python calls the function that follows links.
            os.link(_HANDLES / str(handle), self._temporary, src_dir_fd=handle)
            self._has_name = True

    def put_in_place(self) -> None:
        """Gives the sealed file its own name."""
        self.take_name()
        self._temporary.replace(self.target)
        self.is_in_place = True

    def _open(self) -> BinaryIO:
        """A file without a name, which disappears with the process, if supported; otherwise a temporary name."""
        with suppress(OSError):
            _HANDLES.stat()
            return os.fdopen(os.open(self.target.parent, os.O_TMPFILE | os.O_WRONLY, 0o666), "wb")
        stream = self._temporary.open("xb")
        self._has_name = True
        return stream

    def _forget(self) -> None:
        self._stream = None
        if self._has_name:
            self._temporary.unlink(missing_ok=True)
            self._has_name = False

    def __enter__(self) -> StagedFile:
        return self

    def __exit__(
        self, kind: type[BaseException] | None, error: BaseException | None, trace: TracebackType | None
    ) -> None:
        if self._stream is not None:
            with suppress(OSError):
                self._stream.close()
        self._forget()


def publish(files: Sequence[StagedFile]) -> None:
    """Gives complete files their names, in order, when all of them are on disk.

    Raises:
        ModelFileError: It could not be done.
    """
    # Everything that may fail for want of space is done for all of them before the first one appears. A single file has
    # a temporary name only while it is renamed: a killed process must not leave it behind.
    steps = [StagedFile.seal, StagedFile.take_name, StagedFile.put_in_place]
    for step in steps if len(files) > 1 else (steps[0], steps[-1]):
        for file in files:
            try:
                step(file)
            except OSError as error:
                raise ModelFileError(f"cannot write '{file.named}': {error.strerror}") from error
    for folder in {file.target.parent for file in files}:
        sync_folder(folder)


def sync_folder(folder: Path) -> None:
    """Writes the names in `folder` to disk, if the file system can."""
    with suppress(OSError):
        handle = os.open(folder, os.O_RDONLY)
        try:
            os.fsync(handle)
        finally:
            os.close(handle)
