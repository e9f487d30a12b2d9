"""A text file that a command writes besides its model: whole or not at all."""

from __future__ import annotations

from contextlib import ExitStack
from pathlib import Path

from onnxgraft.errors import ModelFileError
from onnxgraft.io.staged_files import StagedFile, publish


class TextOutput:
    """The place of the file, claimed before the long work begins; with no path, nothing is written.

    Raises:
        ModelFileError: The place cannot be written, or is taken and `overwrite` is false.
    """

    def __init__(self, path: Path | None, *, overwrite: bool) -> None:
        self._stack = ExitStack()
        self._path = path
        self._file = None
        if path is not None:
            self._file = self._stack.enter_context(StagedFile(path, overwrite=overwrite))

    @property
    def is_wanted(self) -> bool:
        """Whether there is a path."""
        return self._file is not None

    def write(self, text: str) -> None:
        """Writes the whole file. Raises ModelFileError as `write_bytes` does."""
        self.write_bytes(text.encode())

    def write_bytes(self, content: bytes) -> None:
        """Writes the whole file.

        Raises:
            ModelFileError: It could not be written; nothing has changed on the disk then.
        """
        if self._file is None:
            return
        try:
            self._file.stream.write(content)
            publish([self._file])
        except OSError as error:
            raise ModelFileError(f"cannot write '{self._path}': {error.strerror}") from error

    def __enter__(self) -> TextOutput:
        return self

    def __exit__(self, *reason: object) -> None:
        self._stack.close()
