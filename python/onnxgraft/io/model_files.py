"""Reading and writing model files. A model with weights in an external file keeps them there.

A written model appears under its name last, in one step, when its data file is complete.
"""

from __future__ import annotations

import os
import stat
from collections.abc import Iterable, Sequence
from contextlib import ExitStack, suppress
from dataclasses import dataclass, replace
from pathlib import Path

import onnx
from google.protobuf.message import DecodeError, EncodeError

from onnxgraft.errors import ModelFileError
from onnxgraft.graph.name_check import text_that_is_not_utf8
from onnxgraft.io.data_file import own_data_files
from onnxgraft.io.external_data import check_external_data, data_files_of, has_external_data
from onnxgraft.io.file_kinds import HEAD, kind_of
from onnxgraft.io.staged_files import StagedFile, publish
from onnxgraft.io.weight_files import Storage, WeightFile

# A protobuf message cannot be larger.
LARGEST_MESSAGE = _LARGEST_READ = 2**31 - 1
# Smaller tensors stay in the model file: a reference to them would be about as long.
SMALLEST_EXTERNAL = 1024
_KINDS = {
    stat.S_IFDIR: "a folder",
    stat.S_IFIFO: "a pipe",
    stat.S_IFCHR: "a device",
    stat.S_IFBLK: "a device",
    stat.S_IFSOCK: "a socket",
}


@dataclass(frozen=True)
class SavedModel:
    """The result of writing."""

    path: Path
    size: int
    data_path: Path | None = None
    data_size: int = 0
    # The model had no external data before, but is too large for one file now.
    outgrew_one_file: bool = False
    # Data files that existed before and are referred to.
    kept: tuple[Path, ...] = ()


def load(path: Path) -> onnx.ModelProto:
    """Reads the model at `path`; external tensors must exist, but are not read.

    Raises:
        ModelFileError: There is no such file, it is not an ONNX model, is broken, or lacks external data.
    """
    data = _read(path)
    if not data:
        raise ModelFileError(f"'{path}' is empty")
    try:
        model = onnx.load_model_from_string(data)
    except (DecodeError, SystemError) as error:  # the C++ implementation of protobuf 3.20 raises the second
        kind = kind_of(data[:HEAD])
        what = f"not an ONNX model, but {kind}" if kind else "not an ONNX model, or broken or incomplete"
        raise ModelFileError(f"'{path}' is {what}") from error
    # Any bytes can happen to be a message without known fields.
    if not model.ir_version or not model.HasField("graph"):
        kind = kind_of(data[:HEAD])
        raise ModelFileError(
            f"'{path}' is not an ONNX model" + (f", but {kind}" if kind else ": it has no graph or no IR version")
        )
    if model.ir_version >= 3 and not model.opset_import:
        raise ModelFileError(f"'{path}' is not a complete ONNX model: it does not state which operator set it uses")
    if (wrong := text_that_is_not_utf8(model)) is not None:
        raise ModelFileError(f"'{path}': {wrong}")
    try:
        check_external_data(model, path.parent)
    except ModelFileError as error:
        raise ModelFileError(f"'{path}': {error}") from error
    return model


def _read(path: Path) -> bytes:
    """The bytes of a regular file; other files may never end, or never deliver anything."""
    try:
        handle = os.open(path, os.O_RDONLY | os.O_NONBLOCK | os.O_CLOEXEC)
        with os.fdopen(handle, "rb") as stream:
            mode = os.fstat(handle).st_mode
            if not stat.S_ISREG(mode):
                kind = _KINDS.get(stat.S_IFMT(mode), "not a regular file")
                raise ModelFileError(f"'{path}' is {kind}, not a model file")
            data = stream.read(_LARGEST_READ + 1)
    except IsADirectoryError:
        raise ModelFileError(f"'{path}' is a folder, not a model file") from None
    except (OSError, ValueError) as error:  # the second is a NUL in the path
        raise ModelFileError(f"cannot read '{path}': {getattr(error, 'strerror', None) or error}") from error
    if len(data) > _LARGEST_READ:
        raise ModelFileError(f"'{path}' is larger than 2 GB, the most that a model file can have")
    return data


class ModelOutput:
    """The place that a model will be written to, claimed before the long work starts.

    A context manager: leaving it without `save` leaves the disk as it was. A data file gets a free name: out.onnx.data
    for out.onnx, else out.onnx-2.data and so on.

    Args:
        path: The model file.
        overwrite: Whether it may exist. Its own data file is removed with it.
        save_as_external_data: Put the weights into a data file even if the model has none.
        keep_external_data: Refer to the present data file for weights that do not change, instead of copying them.
        external_data_threshold: Tensors of fewer bytes stay in the model file; None: 1024.

    Raises:
        ModelFileError: The place cannot be written, or is taken and `overwrite` is false.
    """

    def __init__(
        self,
        path: Path,
        *,
        overwrite: bool,
        save_as_external_data: bool = False,
        keep_external_data: bool = False,
        external_data_threshold: int | None = None,
    ) -> None:
        self._path = path
        threshold = SMALLEST_EXTERNAL if external_data_threshold is None else external_data_threshold
        self._storage = Storage(save_as_external_data, keep_external_data, threshold)
        self._stack = ExitStack()
        self._file = self._stack.enter_context(StagedFile(path, overwrite=overwrite))
        self._weights: WeightFile | None = None
        self._still_needed: set[Path] = set()  # the data files of the model that was read

    @property
    def file(self) -> StagedFile:
        """The model file being written."""
        return self._file

    def __enter__(self) -> ModelOutput:
        return self

    def __exit__(self, *reason: object) -> None:
        self._stack.close()

    def weights_for(self, model: onnx.ModelProto, folder: Path, source: Path | None = None) -> WeightFile:
        """The store for weights that are made while `model` is rewritten: straight to the data file, if there is one.

        Args:
            model: The model. Its locations of external data start from `folder` of the result after this.
            folder: The folder that they start from now.
            source: The file that `model` was read from, if it still needs its data files afterwards.

        Returns:
            A WeightStore for `rewrite`, which also takes its `folder`, as `save` does.

        Raises:
            ModelFileError: The place is a data file of `model` itself, or the model could not refer to weights that are
                to stay in the old data file.
        """
        data_files = data_files_of(model, folder)
        refuse_data_files([self._file], data_files)
        if source is not None and not self._file.is_same_place(source):
            self._still_needed = {Path(os.path.realpath(file)) for file in data_files}
        storage = replace(self._storage, external=self._storage.external or has_external_data(model))
        self._weights = WeightFile(model, folder, self._file.target, storage)
        self._stack.callback(self._weights.discard)
        return self._weights

    def save(self, model: onnx.ModelProto, folder: Path, *, together_with: Sequence[StagedFile] = ()) -> SavedModel:
        """Writes `model`, in two files if external data was asked for or one file cannot hold it.

        Args:
            model: The model. Its references to external data change if it is written in two files.
            folder: The folder that the present locations of external data start from.
            together_with: Other files with their whole content; they appear just before the model, or not at all.

        Raises:
            ModelFileError: It could not be written; nothing has changed on the disk then.
        """
        weights = self._weights or self.weights_for(model, folder)
        content = None if weights.is_external else _serialize(model)
        outgrew, kept = False, frozenset[Path]()
        if content is None:
            outgrew = not weights.is_external
            kept = weights.finish(model)
            content = _serialize(model)
        if content is None:
            raise ModelFileError(f"cannot write '{self._path}': larger than 2 GB even without its weights")
        new = {weights.data.path} if weights.data else set[Path]()
        superseded = own_data_files(self._file.target) - kept - new - self._still_needed
        try:
            self._file.stream.write(content)
        except OSError as error:
            raise ModelFileError(f"cannot write '{self._path}': {error.strerror}") from error
        publish([*together_with, self._file])
        data = weights.hand_over()
        for file in superseded:
            with suppress(OSError):
                file.unlink()
        if data is None:
            return SavedModel(self._path, len(content), kept=tuple(sorted(kept)))
        # For a link, the data is next to the real file.
        data_path = data.path if self._path.is_symlink() else self._path.with_name(data.path.name)
        return SavedModel(self._path, len(content), data_path, data.size, outgrew, tuple(sorted(kept)))


def _serialize(model: onnx.ModelProto) -> bytes | None:
    """The bytes of `model`, or None if they are too many for one message."""
    try:
        content: bytes = model.SerializeToString()
    except (ValueError, EncodeError):
        return None
    return content if len(content) <= LARGEST_MESSAGE else None


def refuse_data_files(files: Sequence[StagedFile], data_files: Iterable[Path]) -> None:
    """Raises ModelFileError if a file being written would replace a data file of the model that was read."""
    for file in files:
        for data in data_files:
            if file.is_same_place(data):
                raise ModelFileError(f"cannot write '{file.named}': the model that is read has its weights there")
