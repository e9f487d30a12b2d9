"""The data of a model that is being written: new weights as they are made, unchanged ones copied from file to file.

Locations in a model are relative to one folder and may not lead out of it. While a model is rewritten, its old weights
and its new ones are looked up together, so the locations start from a folder that holds both.
"""

from __future__ import annotations

import os
from collections.abc import Iterator
from dataclasses import dataclass
from pathlib import Path

import onnx
from onnx.external_data_helper import uses_external_data

from onnxgraft.errors import ModelFileError
from onnxgraft.graph.tensors import raw_values, stored_tensors
from onnxgraft.io.data_file import DataFile
from onnxgraft.io.external_data import Extent, locate, refer

# Unused bytes that a data file may always have between its tensors.
_SLACK = 1 << 20


@dataclass(frozen=True)
class Storage:
    """Which tensors go to the data file.

    Args:
        external: Whether there may be one; otherwise tensors stay in the model file.
        keep: Whether tensors in another data file stay there.
        threshold: Tensors of fewer bytes stay in the model file if they are there.
    """

    external: bool
    keep: bool
    threshold: int


class WeightFile:
    """Receives new tensors while a model is rewritten, and the rest of its weights at the end.

    A WeightStore. The data file is made for the first tensor.

    Attributes:
        folder: The folder that the locations of the model start from while it is rewritten.
        data: The data file; None before the first tensor.
    """

    def __init__(self, model: onnx.ModelProto, folder: Path, target: Path, storage: Storage) -> None:
        """Makes the locations in `model` start from `self.folder`.

        Args:
            model: The model that will be rewritten.
            folder: The folder that its locations start from.
            target: The real path of the model that will be written.
            storage: Which tensors go to the data file.

        Raises:
            ModelFileError: A model at `target` cannot refer to tensors that are to stay where they are.
        """
        self.data: DataFile | None = None
        self._replaced: DataFile | None = None  # one with gaps, while its tensors move to another
        self._target = target
        self._storage = storage
        real = Path(os.path.realpath(folder))
        self.folder = folder
        if storage.external:
            self.folder = Path(os.path.commonpath([real, target.parent]))
            below = real.relative_to(self.folder)
            for tensor in _external(model):
                if storage.keep:
                    self._kept_location(locate(tensor, folder))
                _set_location(tensor, below)

    @property
    def is_external(self) -> bool:
        """Whether weights go to the data file even if the model file could hold them."""
        return self._storage.external

    def store(self, tensor: onnx.TensorProto) -> onnx.TensorProto:
        """Writes the values of a new tensor to the data file and makes it refer to them; a small one stays as it is.

        Raises:
            ModelFileError: They could not be written.
        """
        content = raw_values(tensor) if self._storage.external else None
        if content is None or len(content) < self._storage.threshold:
            return tensor
        data = self._open()
        refer(tensor, str(data.path.relative_to(self.folder)), data.append(content), len(content))
        return tensor

    def finish(self, model: onnx.ModelProto) -> frozenset[Path]:
        """Moves the rest of the weights to the data file and adapts the locations in `model` to its place.

        The model changes only after all bytes are written.

        Returns:
            The other files that the model refers to.

        Raises:
            ModelFileError: The bytes could not be read or written.
        """
        if self._has_gaps(model):
            self._replaced, self.data = self.data, None
        replaced = self._replaced
        places: list[tuple[onnx.TensorProto, str | None, int, int]] = []
        copied: dict[Extent, int] = {}
        kept: set[Path] = set()
        for tensor in stored_tensors(model):
            if uses_external_data(tensor):
                extent = locate(tensor, self.folder)
                location, start = None, extent.offset
                if self.data is not None and extent.file == self.data.path:
                    pass
                elif self._storage.keep and not (replaced is not None and extent.file == replaced.path):
                    location = self._kept_location(extent)
                    kept.add(extent.file)
                else:
                    # Tensors with the same bytes keep sharing them.
                    if extent not in copied:
                        copied[extent] = self._open().append_extent(extent)
                    start = copied[extent]
                places.append((tensor, location, start, extent.length))
            elif (content := raw_values(tensor, self._storage.threshold)) is not None:
                places.append((tensor, None, self._open().append(content), len(content)))
        if self.data is not None:
            self.data.seal(in_place_of=replaced)
        elif replaced is not None:
            replaced.discard()  # no tensor in it is used
        for tensor, location, start, length in places:
            refer(tensor, location or self._open().path.name, start, length)
        return frozenset(kept)

    def hand_over(self) -> DataFile | None:
        """The sealed data file, which stays from now on."""
        data, self.data, self._replaced = self.data, None, None
        return data

    def discard(self) -> None:
        """Removes the data file unless it was handed over."""
        for data in (self.data, self._replaced):
            if data is not None:
                data.discard()

    def _has_gaps(self, model: onnx.ModelProto) -> bool:
        """Whether an eighth of the data file or more belongs to tensors that were dropped again."""
        if self.data is None:
            return False
        extents = {locate(tensor, self.folder) for tensor in _external(model)}
        used = sum(extent.length for extent in extents if extent.file == self.data.path)
        return (self.data.size - used) * 8 >= self.data.size + _SLACK

    def _open(self) -> DataFile:
        if self.data is None:
            self.data = DataFile(self._target)
        return self.data

    def _kept_location(self, extent: Extent) -> str:
        file = Path(os.path.realpath(extent.file))
        if not file.is_relative_to(self._target.parent):
            raise ModelFileError(
                f"the weights cannot stay in '{extent.file}': a model refers only to files in its own folder or "
                f"below; write the output to '{file.parent}', or omit --keep-external-data, so that they are copied"
            )
        return str(file.relative_to(self._target.parent))


def _external(model: onnx.ModelProto) -> Iterator[onnx.TensorProto]:
    return (tensor for tensor in stored_tensors(model) if uses_external_data(tensor))


def _set_location(tensor: onnx.TensorProto, below: Path) -> None:
    for entry in tensor.external_data:
        if entry.key == "location":
            entry.value = str(below / entry.value)
