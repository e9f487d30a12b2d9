"""Files that appear whole or not at all.

A StagedFile is written under a temporary name in the folder of its target; `publish` gives a set of them their names,
the last one last, and takes the earlier ones back if that fails.
"""

from __future__ import annotations

import os
import secrets
import shutil
import stat
from collections.abc import Sequence
from contextlib import suppress
from pathlib import Path
from types import TracebackType
from typing import BinaryIO

from onnxgraft.errors import ModelFileError


class StagedFile:
    """A file under way to `target`. Leaving the context removes all that is temporary.

    Raises:
        ModelFileError: The target cannot be written, or exists and `overwrite` is false.
    """

    def __init__(self, target: Path, *, overwrite: bool) -> None:
        self.named = target
        self._overwrite = overwrite
        # A link stays a link: what it points to is written.
        self.target = Path(os.path.realpath(target))
        token = secrets.token_hex(8)
        self._temporary = self.target.with_name(f".onnxgraft-{token}.tmp")
        self._backup = self.target.with_name(f".onnxgraft-{token}.old")
        self.check_target()
        try:
            self.stream: BinaryIO = self._temporary.open("xb")
        except OSError as error:
            raise ModelFileError(f"cannot write '{target}': {error.strerror}") from error

    def check_target(self) -> None:
        """Raises ModelFileError if the file must not take its place."""
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

    def seal(self) -> None:
        """Brings all bytes to the disk and closes the file."""
        self.stream.flush()
        os.fsync(self.stream.fileno())
        self.stream.close()
        if self.target.exists():
            shutil.copymode(self.target, self._temporary)

    def put_in_place(self) -> None:
        """Gives the sealed file its name; what had the name before stays at hand for `take_back`."""
        self.check_target()
        try:
            os.link(self.target, self._backup)
        except FileNotFoundError:
            pass
        except OSError:
            # No hard links here: the old file is away until the new one is in place.
            self.target.replace(self._backup)
        self._temporary.replace(self.target)

    def take_back(self) -> None:
        """Undoes `put_in_place`, however far it came."""
        if self._backup.exists():
            self._backup.replace(self.target)
        elif not self._temporary.exists():
            self.target.unlink(missing_ok=True)

    def __enter__(self) -> StagedFile:
        return self

    def __exit__(
        self, kind: type[BaseException] | None, error: BaseException | None, trace: TracebackType | None
    ) -> None:
        with suppress(OSError):
            self.stream.close()
        self._temporary.unlink(missing_ok=True)
        self._backup.unlink(missing_ok=True)


def publish(files: Sequence[StagedFile]) -> None:
    """Gives complete files their names, in order.

    Raises:
        ModelFileError: It could not be done; what stood under the names stands there again.
    """
    begun: list[StagedFile] = []
    try:
        for file in files:
            file.seal()
        for file in files:
            begun.append(file)
            file.put_in_place()
    except BaseException as error:
        for file in reversed(begun):
            with suppress(OSError):  # the others still have to go back
                file.take_back()
        if isinstance(error, OSError):
            raise ModelFileError(f"cannot write '{files[-1].named}': {error.strerror}") from error
        raise
    for folder in {file.target.parent for file in files}:
        _sync_folder(folder)


def _sync_folder(folder: Path) -> None:
    """Brings the new names to the disk, where the file system can."""
    with suppress(OSError):
        handle = os.open(folder, os.O_RDONLY)
        try:
            os.fsync(handle)
        finally:
            os.close(handle)
