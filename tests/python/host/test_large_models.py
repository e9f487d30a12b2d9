"""Models with weights in data files: memory, which bytes are copied and where, and the traces of a killed run."""

import signal
import subprocess
import sys
from pathlib import Path

import numpy as np
import onnx
import pytest
from onnx import helper, numpy_helper

from helpers.small_graphs import model_of
from onnxgraft import rewrite
from onnxgraft.errors import ModelFileError
from onnxgraft.io.model_files import ModelOutput, SavedModel, load
from tools.large_models import measure

SHAPES = {"w1": (64, 3, 3, 3), "unread": (3, 5), "w2": (64, 64, 1, 1), "same": (64, 64), "again": (64, 64)}


@pytest.fixture
def folder(tmp_path: Path, monkeypatch: pytest.MonkeyPatch) -> Path:
    """The current folder; in/model.onnx has all weights in in/weights.bin, two of them in the same bytes."""
    monkeypatch.chdir(tmp_path)
    rng = np.random.default_rng(0)
    tensors = {name: rng.random(shape, np.float32) for name, shape in SHAPES.items()}
    lines = ["Conv x w1 -> a", "Conv a w2 -> b", "Add b same -> c", "Add c again -> y"]
    model = model_of(lines, inputs={"x": [1, 3, 64, 64]}, outputs=["y"], tensors=tensors)
    for name in ("in", "out"):
        (tmp_path / name).mkdir()
    onnx.save_model(model, "in/model.onnx", save_as_external_data=True, location="weights.bin", size_threshold=0)
    model = onnx.load("in/model.onnx", load_external_data=False)
    model.graph.initializer[4].external_data[1].CopyFrom(model.graph.initializer[3].external_data[1])
    Path("in/model.onnx").write_bytes(model.SerializeToString())
    return tmp_path


def quantize(out: str, *, force: bool = False, source: str = "in/model.onnx", **options: bool | int) -> SavedModel:
    with ModelOutput(Path(out), overwrite=force, **options) as output:  # type: ignore[arg-type]
        model = load(Path(source))
        weights = output.weights_for(model, Path(source).parent)
        # The second round reads the weights that the first one wrote.
        names = ["quant_conv", "quant_conv"]
        rewrite(model, names, seed=0, prepare=False, folder=weights.folder, weight_store=weights)
        return output.save(model, weights.folder)


def locations(path: str) -> dict[str, tuple[str, ...]]:
    model = onnx.load(path, load_external_data=False)
    return {t.name: tuple(e.value for e in t.external_data) for t in model.graph.initializer if t.external_data}


def files(folder: Path) -> list[str]:
    return sorted(str(path.relative_to(folder)) for path in folder.rglob("*") if path.is_file())


def quantized_in_memory() -> dict[str, bytes]:
    model = onnx.load("in/model.onnx")
    rewrite(model, "quant_conv", seed=0, prepare=False)
    return {tensor.name: tensor.raw_data for tensor in model.graph.initializer}


@pytest.mark.parametrize("out", ["in/o.onnx", "out/o.onnx", "in/model.onnx"])
def test_each_run_writes_a_new_data_file_without_the_old_weights(folder: Path, out: str) -> None:
    expected = quantized_in_memory()
    for data in (f"{out}.data", f"{out}-2.data", f"{out}.data"):
        assert quantize(out, force=True).data_path == Path(data)
        assert [name for name in files(folder) if name.endswith(".data")] == [data]
        assert {t.name: t.raw_data for t in onnx.load(out).graph.initializer} == expected
    stored = locations(out)
    assert stored["same"] == stored["again"]
    assert stored.keys() == {"w1_new", "unread", "w2_new", "same", "again"}
    assert Path(data).stat().st_size == 28672


@pytest.mark.parametrize(("out", "location"), [("in/o.onnx", "weights.bin"), ("o.onnx", "in/weights.bin")])
def test_kept_weights_stay_where_they_are(folder: Path, out: str, location: str) -> None:
    expected = quantized_in_memory()
    saved = quantize(out, keep_external_data=True, external_data_threshold=4096)
    assert {name: place[0] for name, place in locations(out).items()} == {
        **dict.fromkeys(("unread", "same", "again"), location),
        "w2_new": "o.onnx.data",
    }
    assert saved.data_size == 4096
    assert [path.name for path in saved.kept] == ["weights.bin"]
    assert {t.name: t.raw_data for t in onnx.load(out).graph.initializer} == expected
    # The kept data file may be the output's own.
    quantize(out, source=out, force=True, keep_external_data=True)
    assert {t.name: t.raw_data for t in onnx.load(out).graph.initializer} == expected
    before = files(folder)
    with pytest.raises(ModelFileError, match=r"stay in 'in/weights\.bin'.*write the output to '.*/in', or"):
        quantize("out/o.onnx", keep_external_data=True)
    assert files(folder) == before


def test_what_was_stored_and_dropped_again_does_not_stay_in_the_file(folder: Path) -> None:
    with ModelOutput(Path("o.onnx"), overwrite=False) as output:
        model = load(Path("in/model.onnx"))
        weights = output.weights_for(model, Path("in"))
        for index, length in enumerate((300, 10**6)):
            tensor = numpy_helper.from_array(np.arange(length, dtype=np.float32), f"t{index}")
            model.graph.initializer.append(weights.store(tensor))
        del model.graph.initializer[-1]
        saved = output.save(model, weights.folder)
    assert saved.data_size < 10**5
    assert files(folder) == ["in/model.onnx", "in/weights.bin", "o.onnx", "o.onnx.data"]
    assert numpy_helper.to_array(onnx.load("o.onnx").graph.initializer[-1]).tolist() == list(range(300))


@pytest.mark.parametrize("typed", [False, True])
def test_weights_leave_the_model_file_if_asked_to(folder: Path, typed: bool) -> None:
    values = np.arange(300, dtype=np.float32)
    model = onnx.load("in/model.onnx")
    model.graph.initializer[1].CopyFrom(
        helper.make_tensor("unread", 1, [300], values) if typed else numpy_helper.from_array(values, "unread")
    )
    onnx.save_model(model, "whole.onnx")
    quantize("o.onnx", source="whole.onnx", save_as_external_data=True)
    assert locations("o.onnx").keys() == {"w1_new", "unread", "w2_new", "same", "again"}
    unread = next(tensor for tensor in onnx.load("o.onnx").graph.initializer if tensor.name == "unread")
    assert numpy_helper.to_array(unread).tolist() == values.tolist()


# The run is killed at each of these; otherwise the disk is full.
KILLS = [
    "onnxgraft.io.data_file.DataFile.append_extent",
    "onnxgraft.io.staged_files.StagedFile.put_in_place",
    "onnxgraft.io.model_files.own_data_files",
    "onnxgraft.io.data_file.sync_folder",
    "",
]
PROGRAM = """
import os, resource, signal, sys
sys.path[:] = sys.argv[2:]
from unittest import mock
from test_large_models import quantize
kill = lambda *_: os.kill(os.getpid(), signal.SIGKILL)
if sys.argv[1]:
    with mock.patch(sys.argv[1], kill):
        quantize("out/o.onnx", force=True)
resource.setrlimit(resource.RLIMIT_FSIZE, (6000, 6000))
quantize("out/o.onnx", force=True)
"""


@pytest.mark.parametrize("place", KILLS, ids=lambda place: place.rpartition(".")[2] or "full disk")
def test_an_interrupted_run_leaves_the_old_output_whole(folder: Path, place: str) -> None:
    quantize("out/o.onnx")
    content, before = Path("out/o.onnx").read_bytes(), files(folder)
    command = [sys.executable, "-c", PROGRAM, place, *sys.path]
    done = subprocess.run(command, capture_output=True, text=True)
    assert done.returncode == (-signal.SIGKILL if place else 1)
    assert place or "cannot write" in done.stderr.splitlines()[-1]
    assert files(folder) == sorted([*before, *["out/o.onnx-2.data"] * bool(place)])
    assert Path("out/o.onnx").read_bytes() == content
    onnx.load("out/o.onnx")


def test_memory_does_not_grow_with_the_weights(tmp_path: Path) -> None:
    result = measure(tmp_path, layers=24, side=2048)
    assert result.weights == 24 * result.largest == 402653184
    assert result.written < 140e6
    assert result.peak - result.imports < 48 << 20
