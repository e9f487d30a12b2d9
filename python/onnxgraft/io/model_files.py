"""Reading and writing model files. A model whose weights are in an external file stays so.

A model that is written appears under its name last, in one step, when its data file is complete.
"""

from __future__ import annotations

from contextlib import ExitStack, suppress
from dataclasses import dataclass, replace
from pathlib import Path

import onnx
from google.protobuf.message import DecodeError, EncodeError

from onnxgraft.errors import ModelFileError
from onnxgraft.io.data_file import own_data_files
from onnxgraft.io.external_data import check_external_data, has_external_data
from onnxgraft.io.staged_files import StagedFile, publish
from onnxgraft.io.weight_files import Storage, WeightFile

# A protobuf message cannot be larger.
LARGEST_MESSAGE = 2**31 - 1
# Smaller tensors stay in the model file: a reference to them would be about as long.
SMALLEST_EXTERNAL = 1024


@dataclass(frozen=True)
class SavedModel:
    """What was written."""

    path: Path
    size: int
    data_path: Path | None = None
    data_size: int = 0
    # The model had no external data before, but is too large for one file now.
    outgrew_one_file: bool = False
    # Data files that were there before and are referred to.
    kept: tuple[Path, ...] = ()


def load(path: Path) -> onnx.ModelProto:
    """Reads the model at `path`; external tensors are looked for, but not read.

    Raises:
        ModelFileError: There is no such file, it is no ONNX model, is broken, or lacks external data.
    """
    if path.is_dir():
        raise ModelFileError(f"'{path}' is a folder, not a model file")
    try:
        data = path.read_bytes()
    except OSError as error:
        raise ModelFileError(f"cannot read '{path}': {error.strerror}") from error
    if not data:
        raise ModelFileError(f"'{path}' is empty")
    try:
        model = onnx.load_model_from_string(data)
    except (DecodeError, SystemError) as error:  # the C++ implementation of protobuf 3.20 raises the second
        raise ModelFileError(f"'{path}' is not an ONNX model, or broken or cut off") from error
    # Any bytes may happen to be a message without known fields.
    if not model.ir_version or not model.HasField("graph"):
        raise ModelFileError(f"'{path}' is not an ONNX model: it has no graph or no IR version")
    if model.ir_version >= 3 and not model.opset_import:
        raise ModelFileError(f"'{path}' is not a whole ONNX model: it does not say which operator set it uses")
    try:
        check_external_data(model, path.parent)
    except ModelFileError as error:
        raise ModelFileError(f"'{path}': {error}") from error
    return model


class ModelOutput:
    """The place that a model will be written to, claimed before the long work begins.

    A context manager: leaving it without `save` leaves the disk as it was. A data file gets a name that is not taken:
    out.onnx.data for out.onnx, else out.onnx-2.data and so on.

    Args:
        path: The model file.
        overwrite: Whether it may exist. Its own data file goes with it.
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

    def __enter__(self) -> ModelOutput:
        return self

    def __exit__(self, *reason: object) -> None:
        self._stack.close()

    def weights_for(self, model: onnx.ModelProto, folder: Path) -> WeightFile:
        """Where the weights go that are made while `model` is rewritten: straight to the data file, if there is one.

        Args:
            model: The model. Its locations of external data start from `folder` of the result after this.
            folder: The folder that they start from now.

        Returns:
            A WeightStore for `rewrite`, which also takes its `folder`, as `save` does.

        Raises:
            ModelFileError: Weights that are to stay in the old data file could not be referred to.
        """
        storage = replace(self._storage, external=self._storage.external or has_external_data(model))
        self._weights = WeightFile(model, folder, self._file.target, storage)
        self._stack.callback(self._weights.discard)
        return self._weights

    def save(self, model: onnx.ModelProto, folder: Path) -> SavedModel:
        """Writes `model`, in two files if external data was asked for or one file cannot hold it.

        Args:
            model: The model. Its references to external data change if it is written in two files.
            folder: The folder that the present locations of external data start from.

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
        superseded = own_data_files(self._file.target) - kept - new
        try:
            self._file.stream.write(content)
        except OSError as error:
            raise ModelFileError(f"cannot write '{self._path}': {error.strerror}") from error
        publish([self._file])
        data = weights.hand_over()
        for file in superseded:
            with suppress(OSError):
                file.unlink()
        if data is None:
            return SavedModel(self._path, len(content), kept=tuple(sorted(kept)))
        # Behind a link, the data is beside the real file.
        data_path = data.path if self._path.is_symlink() else self._path.with_name(data.path.name)
        return SavedModel(self._path, len(content), data_path, data.size, outgrew, tuple(sorted(kept)))


def _serialize(model: onnx.ModelProto) -> bytes | None:
    """The bytes of `model`, or None if they would be too many for one message."""
    try:
        content: bytes = model.SerializeToString()
    except (ValueError, EncodeError):
        return None
    return content if len(content) <= LARGEST_MESSAGE else None
