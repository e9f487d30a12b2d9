"""Samples are the same from every form of data, and errors take one line."""

from collections.abc import Callable
from pathlib import Path
from typing import Any

import numpy as np
import onnx
import pytest
from onnx import TensorProto

from helpers.small_graphs import model_of
from onnxgraft.errors import DataError
from onnxgraft.samples import Data, Images, open_data

RNG = np.random.default_rng(0)
PICTURES = RNG.random((3, 1, 2, 4, 4), np.float32)
LENGTHS = np.array([4, 7, 9], np.int64)
SAMPLES = [{"x": picture, "n": length} for picture, length in zip(PICTURES, LENGTHS, strict=True)]


def two_inputs(batch: int | str = 1) -> onnx.ModelProto:
    model = model_of(["Relu x -> y"], inputs={"x": [batch, 2, "h", 4], "n": []}, outputs=["y"])
    model.graph.input[1].type.tensor_type.elem_type = TensorProto.INT64
    return model


def one_input(*shape: int | str) -> onnx.ModelProto:
    return model_of(["Relu x -> y"], inputs={"x": shape or (1, 2, "h", 4)}, outputs=["y"])


def by_input(folder: Path) -> None:
    np.save(folder / "x.npy", PICTURES)
    np.save(folder / "n.npy", LENGTHS)


def one_file_each(folder: Path) -> None:
    for number, sample in enumerate(SAMPLES):
        np.savez_compressed(folder / f"{number}.npz", **sample)


def folder_per_input(folder: Path) -> None:
    for name in ("x", "n"):
        (folder / name).mkdir()
        for number, sample in enumerate(SAMPLES):
            np.save(folder / name / f"{number}.npy", sample[name])


@pytest.mark.parametrize("write", [by_input, one_file_each, folder_per_input])
def test_every_form_gives_the_same_samples(tmp_path: Path, write: Callable[[Path], None]) -> None:
    write(tmp_path)
    for data in (tmp_path, SAMPLES, iter([(s["x"], s["n"]) for s in SAMPLES])):
        found = list(open_data(data, two_inputs()))
        assert len(found) == 3
        for sample, wanted in zip(found, SAMPLES, strict=True):
            assert all(np.array_equal(sample[name], wanted[name]) for name in ("x", "n"))
            assert sample["x"].shape == (1, 2, 4, 4)
            assert sample["n"].shape == ()


def test_batches_are_cut_and_single_values_are_shared(tmp_path: Path) -> None:
    np.savez(tmp_path / "all.npz", x=PICTURES[:, 0].astype(np.float64), n=np.int32(5))
    found = list(open_data(tmp_path / "all.npz", two_inputs("batch")))
    assert [sample["x"].shape for sample in found] == [(1, 2, 4, 4)] * 3
    assert [(sample["n"].item(), sample["n"].dtype.str, sample["x"].dtype.str) for sample in found] == [
        (5, "<i8", "<f4")
    ] * 3
    np.save(tmp_path / "x.npy", np.zeros((8, 2, 5, 4), np.float32))
    assert [sample["x"].shape for sample in open_data(tmp_path / "x.npy", one_input(4, 2, "h", 4))] == [
        (4, 2, 5, 4)
    ] * 2


def test_random_samples_are_said_loudly(caplog: pytest.LogCaptureFixture) -> None:
    first, again = (list(open_data("random:2", one_input(), seed=3, sizes={"h": 6})) for _ in range(2))
    assert [sample["x"].shape for sample in first] == [(1, 2, 6, 4)] * 2
    assert np.array_equal(first[1]["x"], again[1]["x"])
    assert not np.array_equal(first[0]["x"], first[1]["x"])
    assert "random numbers" in caplog.text


X = PICTURES[0]
BAD: dict[str, tuple[Any, str]] = {
    "name": ([{"y": X}], "sample 1: the model has no input 'y': it has x"),
    "missing": ([{}], "there is no array for the input 'x'"),
    "shape": ([X, X[:, :1]], r"sample 2: the input 'x' is float32\[1,2,\?,4\], but the array has shape \[1,1,4,4\]"),
    "type": ([X.astype(np.uint8)], "is float32.*but the array has type uint8"),
    "nan": ([np.where(X[0, 1, 2, 3] == X, np.nan, X)], r"not finite: nan at \[0, 1, 2, 3\]"),
    "mapping": ({"x": X}, "put it into a list"),
    "arrays": ([[X, X]], "sample 1 has 2 arrays, but the model has the inputs x"),
    "random": ("random:few", "must be random:N"),
    "nowhere": ("nowhere.npz", "there is no file or folder 'nowhere.npz'"),
    "empty": (".", "the folder '.' has no data"),
    "broken.npz": ("broken.npz", "cannot read 'broken.npz' as .npz data"),
    "broken.npy": ("broken.npy", "cannot read 'broken.npy' as .npy data"),
    "broken.txt": ("broken.txt", "'broken.txt' is not data"),
}


@pytest.mark.parametrize("case", BAD)
def test_what_does_not_fit_is_told(case: str, tmp_path: Path, monkeypatch: pytest.MonkeyPatch) -> None:
    monkeypatch.chdir(tmp_path)
    if case.startswith("broken"):
        Path(case).write_bytes(b"PK\3\4 broken")
    data: Data
    data, message = BAD[case]
    with pytest.raises(DataError, match=message) as caught:
        list(open_data(data, one_input()))
    assert "\n" not in str(caught.value)


def test_inputs_with_different_numbers_of_samples(tmp_path: Path) -> None:
    np.savez(tmp_path / "d.npz", x=PICTURES, n=LENGTHS[:2])
    with pytest.raises(DataError, match="different numbers of samples: x 3, n 2"):
        list(open_data(tmp_path / "d.npz", two_inputs()))


def test_images(tmp_path: Path) -> None:
    image = pytest.importorskip("PIL.Image")
    red = np.zeros((4, 8, 3), np.uint8)
    red[..., 0] = 255
    image.fromarray(red).save(tmp_path / "a.png")

    def value(settings: Images, *shape: int | str) -> Any:
        (sample,) = open_data(tmp_path, one_input(*shape), images=settings)
        return sample["x"]

    stretched = value(Images(mean=(0.5, 0, 0), std=(0.5,)), 1, 3, 6, 6)
    assert stretched.shape == (1, 3, 6, 6)
    assert stretched[0, :, 0, 0].tolist() == [1, 0, 0]
    assert value(Images(color="BGR"), 1, "h", "w", 3)[0, 0, 0].tolist() == [0, 0, 1]
    # The grey that fills the rest is 114.
    boxed = value(Images(fit="letterbox", scale=1.0), "n", 3, 8, 8)
    assert boxed[0, 0].astype(int)[:, 0].tolist() == [114, 114, 255, 255, 255, 255, 114, 114]
    assert value(Images(size=(2, 4)), 1, 1, "h", "w").shape == (1, 1, 2, 4)
    (tmp_path / "b.png").write_bytes(b"no image")
    with pytest.raises(DataError, match=r"cannot read the image .*b\.png"):
        list(open_data(tmp_path, one_input(1, 3, 6, 6)))
    with pytest.raises(DataError, match="does not accept images"):
        open_data(tmp_path, one_input(1, 3))
