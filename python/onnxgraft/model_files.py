"""Reading and writing model files. A model whose weights are in an external file stays so."""

from __future__ import annotations

from contextlib import ExitStack
from dataclasses import dataclass
from pathlib import Path

import onnx
from google.protobuf.message import DecodeError, EncodeError

from onnxgraft.errors import ModelFileError
from onnxgraft.external_data import check_external_data, has_external_data, move_to_file
from onnxgraft.staged_files import StagedFile, publish

# A protobuf message cannot be larger.
LARGEST_MESSAGE = 2**31 - 1


@dataclass(frozen=True)
class SavedModel:
    """What was written."""

    path: Path
    size: int
    data_path: Path | None = None
    data_size: int = 0
    # The model had no external data before, but is too large for one file now.
    outgrew_one_file: bool = False


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

    A context manager: leaving it without `save` leaves the disk as it was.

    Raises:
        ModelFileError: The place cannot be written, or is taken and `overwrite` is false.
    """

    def __init__(self, path: Path, *, overwrite: bool) -> None:
        self._path = path
        self._overwrite = overwrite
        self._stack = ExitStack()
        self._file = self._stack.enter_context(StagedFile(path, overwrite=overwrite))
        self._data: StagedFile | None = None

    def __enter__(self) -> ModelOutput:
        return self

    def __exit__(self, *reason: object) -> None:
        self._stack.close()

    def use_external_data(self) -> StagedFile:
        """Claims '<output>.data' too: `save` will put the weights there.

        Raises:
            ModelFileError: As for the output itself.
        """
        if self._data is None:
            target = self._file.target
            data = StagedFile(target.with_name(target.name + ".data"), overwrite=self._overwrite)
            self._data = self._stack.enter_context(data)
        return self._data

    def save(self, model: onnx.ModelProto, folder: Path) -> SavedModel:
        """Writes `model`, in two files if external data was asked for or one file cannot hold it.

        Args:
            model: The model. Its references to external data change if it is written in two files.
            folder: The folder that the present locations of external data start from.

        Raises:
            ModelFileError: It could not be written; nothing has changed on the disk then.
        """
        try:
            content = None if self._data or has_external_data(model) else _serialize(model)
            if content is None:
                return self._save_with_data(model, folder, outgrew_one_file=self._data is None)
            self._file.stream.write(content)
            publish([self._file])
            return SavedModel(self._path, len(content))
        except OSError as error:
            raise ModelFileError(f"cannot write '{self._path}': {error.strerror}") from error

    def _save_with_data(self, model: onnx.ModelProto, folder: Path, *, outgrew_one_file: bool) -> SavedModel:
        data = self.use_external_data()
        size = move_to_file(model, folder, data.stream, data.target.name)
        content = _serialize(model)
        if content is None:
            raise ModelFileError(f"cannot write '{self._path}': larger than 2 GB even without its weights")
        self._file.stream.write(content)
        if not size:
            publish([self._file])
            return SavedModel(self._path, len(content))
        publish([data, self._file])
        # Behind a link, the data is beside the real file.
        data_path = data.target if self._path.is_symlink() else self._path.with_name(data.target.name)
        return SavedModel(self._path, len(content), data_path, size, outgrew_one_file)


def _serialize(model: onnx.ModelProto) -> bytes | None:
    """The bytes of `model`, or None if they would be too many for one message."""
    try:
        content: bytes = model.SerializeToString()
    except (ValueError, EncodeError):
        return None
    return content if len(content) <= LARGEST_MESSAGE else None
