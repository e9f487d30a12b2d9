"""The source of samples: `open_data` turns any supported form of user data into one iterable of feeds.

A sample is a dictionary of arrays by input name, checked against the model's declarations. Only the current sample is
in memory, except for arrays of a compressed `.npz`, of which one is read at a time.
"""

from __future__ import annotations

import difflib
import logging
from collections.abc import Iterable, Iterator, Mapping, Sequence, Sized
from dataclasses import dataclass
from os import PathLike
from pathlib import Path
from typing import Any, Protocol, cast
from zipfile import BadZipFile, is_zipfile

import numpy as np
import numpy.typing as npt
import onnx

from onnxgraft.errors import DataError
from onnxgraft.samples.declared import DeclaredInput, declared_inputs
from onnxgraft.samples.images import IMAGE_ENDINGS, ImageFolder, Images
from onnxgraft.samples.random_values import inputs_of, random_values

Array = npt.NDArray[Any]
Sample = dict[str, Array]
Data = str | PathLike[str] | Iterable[Mapping[str, Array] | Array | Sequence[Array]]

_log = logging.getLogger(__name__)
_RANDOM = "random:"


class Samples(Protocol):
    """Samples, one after the other. `count` is their number if it is known; messages call them `label`."""

    count: int | None
    label: str

    def __iter__(self) -> Iterator[Sample]: ...


def open_data(
    data: Data,
    model: onnx.ModelProto,
    *,
    images: Images | None = None,
    sizes: Mapping[str, int] | None = None,
    seed: int = 0,
) -> Samples:
    """Recognises the form of `data`; samples are read during iteration.

    Args:
        data: One of these:
            - an `.npz` file, or an `.npy` file for a model with one input;
            - a folder of `.npz` files (each with an array per input), of `.npy` files named after the inputs, of
              folders named after the inputs with `.npy` files in them, or, for a model with one input, of `.npy` files
              with any names;
            - a folder of images, for a model with one input of rank 4;
            - "random:N": N samples of random numbers, which say little about a trained model;
            - an iterable of samples: mappings by input name, or arrays in the order of the inputs.

            An array with one more axis than its input declares holds samples along the first axis. So does one whose
            first axis is longer than the input's: it is cut into batches of the declared length, or of 1. An input with
            only one value keeps it for all samples.
        model: The model, which declares inputs.
        images: How images become arrays.
        sizes: Sizes of symbolic dimensions of random samples, by name or as "input[axis]".
        seed: The seed of random samples.

    Raises:
        DataError: There is no such data, or it does not fit the model's inputs. An error in a later sample is raised
            when that sample is reached.
    """
    inputs = declared_inputs(model)
    if isinstance(data, str) and data.startswith(_RANDOM):
        return _RandomSamples(data, model, sizes or {}, seed)
    if not isinstance(data, str | PathLike):
        return _GivenSamples(data, inputs)
    path = Path(data)
    if path.is_dir():
        return _open_folder(path, inputs, images)
    if not path.exists():
        raise DataError(f"there is no file or folder '{path}' to read data from")
    if path.suffix.lower() in {".npz", ".npy"}:
        return _StoredSamples(path.name, [path], inputs)
    if path.suffix.lower() in IMAGE_ENDINGS:
        return ImageFolder(path, [path], inputs, images or Images())
    raise DataError(f"'{path}' is not data: expected an .npz or .npy file, or a folder of .npy, .npz or image files")


def _open_folder(folder: Path, inputs: Mapping[str, DeclaredInput], images: Images | None) -> Samples:
    entries = sorted(folder.iterdir())
    by_ending: dict[str, list[Path]] = {}
    for entry in entries:
        by_ending.setdefault(entry.suffix.lower() if entry.is_file() else "/", []).append(entry)
    if found := by_ending.get(".npz"):
        return _StoredSamples(folder.name, found, inputs)
    if found := by_ending.get(".npy"):
        if {entry.stem for entry in found} & inputs.keys():
            return _StoredSamples(folder.name, found, inputs, by_input=True)
        return _StoredSamples(folder.name, found, inputs)
    if found := [entry for ending in sorted(IMAGE_ENDINGS) for entry in by_ending.get(ending, ())]:
        return ImageFolder(folder, sorted(found), inputs, images or Images())
    if any(entry.name in inputs for entry in by_ending.get("/", ())):
        return _StoredFolders(folder, inputs)
    raise DataError(f"the folder '{folder}' has no data: no .npz, .npy or image files")


class _RandomSamples:
    def __init__(self, text: str, model: onnx.ModelProto, sizes: Mapping[str, int], seed: int) -> None:
        number = text.removeprefix(_RANDOM)
        if not number.isascii() or not number.isdigit() or int(number) == 0:
            raise DataError(f"'{text}' must be random:N with a whole number N of at least 1")
        self.count: int | None = int(number)
        self.label = text
        self._inputs = inputs_of(model, sizes)
        self._seed = seed
        _log.warning("the data are random numbers: results from them say little about a trained model")

    def __iter__(self) -> Iterator[Sample]:
        return (random_values(self._inputs, self._seed + run) for run in range(cast("int", self.count)))


class _GivenSamples:
    def __init__(self, data: Iterable[Any], inputs: Mapping[str, DeclaredInput]) -> None:
        self._data, self._inputs = data, inputs
        self.count: int | None = len(data) if isinstance(data, Sized) else None
        self.label = "the given samples"
        if isinstance(data, Mapping):
            raise DataError("expected an iterable of samples, not one sample: put it into a list")

    def __iter__(self) -> Iterator[Sample]:
        for number, sample in enumerate(self._data, 1):
            yield checked(self._by_name(sample, number), self._inputs, f"sample {number}")

    def _by_name(self, sample: Any, number: int) -> Mapping[str, Array]:
        if isinstance(sample, Mapping):
            return sample
        arrays = [sample] if isinstance(sample, np.ndarray) else list(sample)
        if len(arrays) != len(self._inputs):
            raise DataError(
                f"sample {number} has {len(arrays)} arrays, but the model has the inputs {', '.join(self._inputs)}"
            )
        return dict(zip(self._inputs, arrays, strict=True))


@dataclass(frozen=True)
class _Stack:
    """An array of samples. `rows` of the first axis make one sample; 0: the first axis counts samples."""

    values: Array
    rows: int

    def __len__(self) -> int:
        return len(self.values) // max(self.rows, 1)

    def sample(self, number: int) -> Any:
        if self.rows == 0:
            return self.values[number]
        return self.values[number * self.rows : (number + 1) * self.rows]


class _StoredSamples:
    """Arrays in files: each file has all inputs (`.npz`), or with `by_input` one input each."""

    def __init__(
        self, label: str, files: Sequence[Path], inputs: Mapping[str, DeclaredInput], *, by_input: bool = False
    ) -> None:
        self.label = label
        self.count: int | None = None
        self._inputs = inputs
        self._groups = [list(files)] if by_input else [[file] for file in files]

    def __iter__(self) -> Iterator[Sample]:
        for group in self._groups:
            arrays: dict[str, Array] = {}
            for file in group:
                arrays |= _read(file, self._inputs)
            yield from _cut(arrays, self._inputs, group[0].name if len(group) == 1 else self.label)


class _StoredFolders:
    """`folder/input/*.npy`: the files of each input in the order of their names."""

    def __init__(self, folder: Path, inputs: Mapping[str, DeclaredInput]) -> None:
        self.label = folder.name
        self._inputs = inputs
        self._files = {name: sorted((folder / name).glob("*.npy")) for name in inputs if (folder / name).is_dir()}
        if missing := [name for name in inputs if not self._files.get(name)]:
            raise DataError(f"the folder '{folder}' has no .npy files for the input '{missing[0]}'")
        counts = {name: len(files) for name, files in self._files.items()}
        if len(set(counts.values())) > 1:
            found = ", ".join(f"{name} {count}" for name, count in counts.items())
            raise DataError(f"the folder '{folder}' has different numbers of files per input: {found}")
        self.count: int | None = next(iter(counts.values()))

    def __iter__(self) -> Iterator[Sample]:
        for files in zip(*self._files.values(), strict=True):
            sample = {name: _load(file) for name, file in zip(self._files, files, strict=True)}
            yield checked(cast("Sample", sample), self._inputs, files[0].name)


def _load(file: Path) -> Any:
    try:
        # np.load decides by the content, and leaves a broken file open.
        if file.suffix.lower() == ".npy":
            return np.lib.format.open_memmap(file, mode="r")
        if not is_zipfile(file):
            raise ValueError("it is broken or incomplete")
        return np.load(file, allow_pickle=False)
    except (OSError, ValueError, EOFError, BadZipFile) as error:
        reason = " ".join(str(error).split())
        raise DataError(f"cannot read '{file}' as {file.suffix} data: {reason}") from None


def _read(file: Path, inputs: Mapping[str, DeclaredInput]) -> dict[str, Array]:
    loaded = _load(file)
    if isinstance(loaded, np.ndarray):
        if file.stem in inputs:
            return {file.stem: loaded}
        if len(inputs) == 1:
            return {next(iter(inputs)): loaded}
        raise DataError(f"'{file}' does not have the name of an input: {_known(file.stem, inputs)}")
    try:
        with loaded:
            return {name: loaded[name] for name in loaded.files}
    except (OSError, ValueError, EOFError, BadZipFile) as error:
        raise DataError(f"cannot read '{file}' as .npz data: {' '.join(str(error).split())}") from None


def _cut(arrays: Mapping[str, Array], inputs: Mapping[str, DeclaredInput], place: str) -> Iterator[Sample]:
    """Samples from arrays that may be stacks of samples."""
    check_names(arrays, inputs, place)
    stacks: dict[str, _Stack] = {}
    for name, values in arrays.items():
        rows = inputs[name].rows_per_sample(values)
        if rows is not None:
            stacks[name] = _Stack(values, rows)
    counts = {name: len(stack) for name, stack in stacks.items()}
    if len(set(counts.values())) > 1:
        found = ", ".join(f"{name} {count}" for name, count in counts.items())
        raise DataError(f"{place}: the inputs have different numbers of samples: {found}")
    for number in range(next(iter(counts.values()), 1)):
        sample = {name: stacks[name].sample(number) if name in stacks else arrays[name] for name in arrays}
        yield checked(sample, inputs, f"{place}, sample {number + 1}")


def check_names(arrays: Mapping[str, Any], inputs: Mapping[str, DeclaredInput], place: str) -> None:
    """Raises DataError unless there is an array for each input and no other."""
    for name in arrays:
        if name not in inputs:
            raise DataError(f"{place}: the model has no input '{name}': {_known(name, inputs)}")
    if missing := [name for name in inputs if name not in arrays]:
        raise DataError(f"{place}: there is no array for the input '{missing[0]}'")


def checked(sample: Mapping[str, Any], inputs: Mapping[str, DeclaredInput], place: str) -> Sample:
    """The sample, in memory, in the inputs' own element types.

    Raises:
        DataError: A name, a type or a shape differs from the model's declaration, or a value is not finite.
    """
    check_names(sample, inputs, place)
    return {name: wanted.checked(np.asarray(sample[name]), place) for name, wanted in inputs.items()}


def _known(name: str, inputs: Mapping[str, DeclaredInput]) -> str:
    similar = difflib.get_close_matches(name, inputs, n=2)
    return f"did you mean {' or '.join(similar)}?" if similar else f"it has {', '.join(inputs)}"
