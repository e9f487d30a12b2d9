"""A text file that a command writes in addition to its model: whole or not at all."""

from __future__ import annotations

from contextlib import ExitStack
from pathlib import Path

from onnxgraft.cli import claims
from onnxgraft.errors import ModelFileError
from onnxgraft.io.staged_files import StagedFile, publish


class TextOutput:
    """The place of the file, claimed before the long work starts; without a path, nothing is written.

    Raises:
        ModelFileError: The place cannot be written, or is taken and `overwrite` is false.
    """

    def __init__(self, path: Path | None, *, overwrite: bool) -> None:
        self._stack = ExitStack()
        self._path = path
        self._file = None
        if path is not None:
            self._file = self._stack.enter_context(StagedFile(path, overwrite=overwrite))
            claims.add(self._file)

    @property
    def is_wanted(self) -> bool:
        """Whether there is a path."""
        return self._file is not None

    def hold(self, content: str | bytes) -> list[StagedFile]:
        """Writes the whole content, which has no name yet.

        Returns:
            The file, to be published; None if no file is wanted.

        Raises:
            ModelFileError: It could not be written.
        """
        if self._file is None:
            return []
        try:
            encoded = content.encode(errors="backslashreplace") if isinstance(content, str) else content
            self._file.stream.write(encoded)
            self._file.stream.flush()
        except OSError as error:
            raise ModelFileError(f"cannot write '{self._path}': {error.strerror}") from error
        return [self._file]

    def write(self, text: str) -> None:
        """Writes the whole file. Raises ModelFileError as `write_bytes` does."""
        publish(self.hold(text))

    def write_bytes(self, content: bytes) -> None:
        """Writes the whole file and gives it its name.

        Raises:
            ModelFileError: It could not be written; nothing has changed on the disk then.
        """
        publish(self.hold(content))

    def __enter__(self) -> TextOutput:
        return self

    def __exit__(self, *reason: object) -> None:
        self._stack.close()
