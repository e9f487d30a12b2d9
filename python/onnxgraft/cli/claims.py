"""The files that the running command will write: no two are the same, and those already in place are recorded."""

from __future__ import annotations

from typing import TYPE_CHECKING

from onnxgraft.errors import ModelFileError

if TYPE_CHECKING:
    from pathlib import Path

    import onnx

    from onnxgraft.io.staged_files import StagedFile

# The endings of reports and pages.
_TEXTS = {".json", ".html", ".npz"}

_claimed: list[StagedFile] = []


def begin() -> None:
    """Forgets the files of an earlier command."""
    _claimed.clear()


def add(file: StagedFile) -> None:
    """Adds a file.

    Raises:
        ModelFileError: It is the same as one that was added before, by any name.
    """
    for other in _claimed:
        if file.is_same_place(other.target):
            raise ModelFileError(f"'{other.named}' and '{file.named}' are the same file, which cannot hold both")
    _claimed.append(file)


def keep_off(path: Path, model: onnx.ModelProto) -> None:
    """Makes sure that none of the files is an input, except for a model that is written in its own place.

    Args:
        path: A model that the command reads.
        model: The model that was read.

    Raises:
        ModelFileError: One is the model but would not be a model file, or is one of its data files, by any name or
            link.
    """
    from onnxgraft.io import external_data, model_files  # noqa: PLC0415

    model_files.refuse_data_files(_claimed, external_data.data_files_of(model, path.parent))
    for file in _claimed:
        if file.named.suffix.lower() in _TEXTS and file.is_same_place(path):
            raise ModelFileError(f"cannot write '{file.named}': it is the model that is read")


def in_place() -> list[str]:
    """The files that have received their names."""
    return [f"'{file.named}'" for file in _claimed if file.is_in_place]
