"""The command line: what it shows, what it writes, and that bad input leaves nothing behind."""

import json
import os
import re
import signal
import subprocess
import sys
from collections.abc import Callable
from pathlib import Path

import numpy as np
import onnx
import pytest
from onnx import numpy_helper

from helpers.small_graphs import model_of
from onnxgraft import quant
from onnxgraft.cli import main
from onnxgraft.io import model_files

MODEL = "model.onnx"
OUT = "out.onnx"
Capture = pytest.CaptureFixture[str]


def make_model() -> onnx.ModelProto:
    """Two Conv in a row; the second has no bias."""
    rng = np.random.default_rng(0)
    shapes = {"w1": (64, 3, 3, 3), "b1": (64,), "w2": (64, 64, 1, 1)}
    tensors = {name: rng.random(shape, np.float32) for name, shape in shapes.items()}
    lines = ["Conv x w1 b1 -> y", "Conv y w2 -> z"]
    return model_of(lines, inputs={"x": [1, 3, 8, 8]}, outputs=["z"], tensors=tensors)


def save_external(folder: Path, data: str = "weights.bin") -> None:
    onnx.save_model(make_model(), folder / MODEL, save_as_external_data=True, location=data, size_threshold=0)


@pytest.fixture
def folder(tmp_path: Path, monkeypatch: pytest.MonkeyPatch) -> Path:
    """The current folder, with a model in it."""
    monkeypatch.chdir(tmp_path)
    onnx.save_model(make_model(), MODEL)
    return tmp_path


def run(*arguments: str) -> int:
    try:
        return main(arguments)
    except SystemExit as stop:
        return int(stop.code or 0)


def apply(*further: str, out: str = OUT, name: str = "quant_conv") -> int:
    return run("apply", MODEL, "-t", name, "-o", out, "--no-prepare", *further)


def raw_data(model: onnx.ModelProto) -> dict[str, bytes]:
    return {tensor.name: numpy_helper.to_array(tensor).tobytes() for tensor in model.graph.initializer}


def contents(folder: Path) -> dict[str, bytes | None]:
    return {str(path.relative_to(folder)): path.read_bytes() if path.is_file() else None for path in folder.rglob("*")}


def test_list_shows_every_transformation_that_can_run(capsys: Capture) -> None:
    assert run("list") == 0
    rows = [re.split(r"\s{2,}", line.strip()) for line in capsys.readouterr().out.splitlines()]
    shown = {row[0]: row[1:] for row in rows if len(row) == 4}
    runnable = {cls().get_simple_name(): cls for cls in vars(quant).values() if hasattr(cls, "get_simple_name")}
    assert list(shown) == ["Name", *runnable]
    assert shown["quant_matmul"] == ["QuantMatMulTransformation", "NLP and CV models", "3"]
    assert shown["replace_quant_v2"] == ["ChangeTesselQuantTransformationV2", "YOLO, U2Net", "5"]


@pytest.mark.parametrize("external", [False, True])
def test_apply_writes_the_model_and_says_what_it_did(folder: Path, capsys: Capture, external: bool) -> None:
    if external:
        save_external(folder)
    assert apply("-t", "quant_gemm", "--seed", "7") == 0
    shown = capsys.readouterr()
    assert shown.err == ""
    numbers = {line.split()[0]: line.split()[1:] for line in shown.out.splitlines() if line.strip()}
    assert numbers["quant_conv"][:5] == ["2", "2", "0", "2", "6"]  # found, replaced, refused, nodes before and after
    assert numbers["quant_gemm"][:5] == ["0", "0", "0", "6", "6"]
    assert numbers["total"][:5] == ["2", "2", "0", "2", "6"]
    assert f"wrote {OUT}" in shown.out
    expected = make_model()
    np.random.seed(7)
    assert quant.QuantConvTransformation().apply(expected.graph) == 2
    assert raw_data(onnx.load(OUT)) == raw_data(expected)
    assert onnx.load(OUT).graph.node == expected.graph.node
    assert sorted(contents(folder)) == [MODEL, OUT, *[f"{OUT}.data", "weights.bin"] * external]


def test_a_result_too_large_for_one_file_gets_a_second(
    folder: Path, monkeypatch: pytest.MonkeyPatch, capsys: Capture
) -> None:
    monkeypatch.setattr(model_files, "LARGEST_MESSAGE", 4000)
    assert apply() == 0
    assert f"wrote {OUT}.data" in (shown := capsys.readouterr().out)
    assert "larger than 2 GB" in shown
    assert len(onnx.load(OUT).graph.node) == 6
    before = contents(folder)
    monkeypatch.setattr(model_files, "LARGEST_MESSAGE", 100)
    assert apply("--force") == 1
    assert contents(folder) == before


# --- bad input


def write(content: bytes) -> Callable[[Path], object]:
    return lambda folder: (folder / MODEL).write_bytes(content)


def cut_off(folder: Path) -> None:
    os.truncate(folder / MODEL, (folder / MODEL).stat().st_size // 2)


def replace_by_folder(folder: Path) -> None:
    (folder / MODEL).unlink()
    (folder / MODEL).mkdir()


def external_with(key: str, value: str) -> Callable[[Path], None]:
    def make(folder: Path) -> None:
        save_external(folder)
        model = onnx.load(folder / MODEL, load_external_data=False)
        entries = {entry.key: entry for entry in model.graph.initializer[0].external_data}
        entries[key].value = value
        (folder / MODEL).write_bytes(model.SerializeToString())

    return make


def external_without_file(folder: Path) -> None:
    save_external(folder)
    (folder / "weights.bin").unlink()


def without_operator_set(folder: Path) -> None:
    model = make_model()
    del model.opset_import[:]
    (folder / MODEL).write_bytes(model.SerializeToString())


def nothing(_: Path) -> None:
    pass


Make = Callable[[Path], object]
CONV = f"apply {MODEL} -t quant_conv"
WRITE = f"{CONV} -o {OUT}"
BAD_INPUT: dict[str, tuple[int, str, Make, str]] = {
    # name: exit code, what the line says, how the folder is prepared, arguments
    "no command": (2, "COMMAND", nothing, ""),
    "no output": (2, "--output", nothing, CONV),
    "no transformation": (2, "--transformation", nothing, f"apply {MODEL} -o {OUT}"),
    "unknown name": (2, "'quant_cnv': did you mean quant_conv", nothing, f"{CONV} -t quant_cnv -o {OUT}"),
    "negative seed": (2, "'-1' is not a whole", nothing, f"apply {MODEL} -o {OUT} --seed -1"),
    "seed too large": (2, "4294967296", nothing, f"apply {MODEL} -o {OUT} --seed 4294967296"),
    "missing file": (1, "No such file", lambda folder: (folder / MODEL).unlink(), WRITE),
    "empty file": (1, "is empty", write(b""), WRITE),
    "not ONNX": (1, "not an ONNX model", write(b"\x89PNG\r\n\x1a\n" + bytes(100)), WRITE),
    "unknown fields only": (1, "no graph", write(b"h\x01"), WRITE),
    "cut off": (1, "cut off", cut_off, WRITE),
    "no operator set": (1, "operator set", without_operator_set, WRITE),
    "folder as model": (1, "is a folder", replace_by_folder, WRITE),
    "folder as output": (1, "is a folder", lambda folder: (folder / OUT).mkdir(), WRITE),
    "existing output": (1, "exists already", lambda folder: (folder / OUT).write_bytes(b"mine"), WRITE),
    "missing output folder": (1, "no folder 'no'", nothing, f"{CONV} -o no/o"),
    "output below a file": (1, "Not a directory", nothing, f"{CONV} -o {MODEL}/o"),
    "output not writable": (1, "cannot write", nothing, f"{CONV} -o /proc/out.onnx"),
    "device as output": (1, "not a regular file", nothing, f"{CONV} --force -o /dev/null"),
    "missing external data": (1, "weights.bin", external_without_file, WRITE),
    "external data elsewhere": (1, "in the model's folder", external_with("location", "/etc/passwd"), WRITE),
    "external data above": (1, "in the model's folder", external_with("location", "../weights.bin"), WRITE),
    "external data cut off": (1, "the tensor takes 99999999", external_with("length", "99999999"), WRITE),
    "external data with a bad offset": (1, "whole numbers", external_with("offset", "zero"), WRITE),
}


@pytest.mark.parametrize(("code", "says", "prepare", "arguments"), BAD_INPUT.values(), ids=BAD_INPUT.keys())
def test_bad_input_gets_one_line_and_changes_nothing(
    folder: Path, capsys: Capture, code: int, says: str, prepare: Make, arguments: str
) -> None:
    prepare(folder)
    before = contents(folder)
    assert run(*arguments.split()) == code
    shown = capsys.readouterr()
    assert says in shown.err
    assert shown.err.count("\n") == 1
    assert shown.out == ""
    assert contents(folder) == before


@pytest.mark.parametrize(
    ("place", "raised", "code"),
    [
        ("apply", ValueError("bad\nweight"), 1),
        ("apply", MemoryError(), 1),
        ("apply", KeyboardInterrupt(), 130),
        ("publish", KeyboardInterrupt(), 130),
        ("publish", OSError(28, "No space left on device"), 1),
    ],
    ids=lambda value: str(value) if isinstance(value, str) else type(value).__name__,
)
def test_a_failure_on_the_way_leaves_the_old_files(
    folder: Path, capsys: Capture, monkeypatch: pytest.MonkeyPatch, place: str, raised: BaseException, code: int
) -> None:
    save_external(folder, MODEL + ".data")
    before = contents(folder)
    replace = Path.replace

    def fail(*_args: object, **_options: object) -> int:
        raise raised

    def replace_but_the_model(self: Path, target: Path) -> Path:
        # The data file has taken its place when the model's turn comes.
        if target.name == MODEL and self.suffix == ".tmp":
            fail()
        return replace(self, target)

    if place == "apply":
        monkeypatch.setattr(quant.QuantConvTransformation, "apply", fail)
    else:
        monkeypatch.setattr(Path, "replace", replace_but_the_model)
    assert apply("--force", out=MODEL) == code
    assert capsys.readouterr().err.count("\n") == 1
    assert contents(folder) == before


def test_force_keeps_links_and_permissions(folder: Path) -> None:
    (folder / "real.onnx").write_bytes(b"old")
    (folder / "real.onnx").chmod(0o640)
    (folder / OUT).symlink_to("real.onnx")
    assert apply("--force") == 0
    assert (folder / OUT).is_symlink()
    assert (folder / "real.onnx").stat().st_mode & 0o777 == 0o640
    assert len(onnx.load(folder / "real.onnx").graph.node) == 6


def test_as_a_process(folder: Path) -> None:
    command = [sys.executable, "-m", "onnxgraft", "apply", MODEL, "-t", "nothing", "-o", OUT]
    done = subprocess.run(command, capture_output=True, text=True)
    assert (done.returncode, done.stdout) == (2, "")
    assert "onnxgraft list" in done.stderr


def test_a_terminated_process_leaves_no_temporary_file(folder: Path) -> None:
    before = contents(folder)
    program = """
import time, onnxgraft.quant
from onnxgraft.__main__ import run
onnxgraft.quant.QuantConvTransformation.apply = lambda self, graph: (print("begun", flush=True), time.sleep(60))
run()
"""
    arguments = ["apply", MODEL, "-t", "quant_conv", "-o", OUT]
    with subprocess.Popen([sys.executable, "-c", program, *arguments], stdout=subprocess.PIPE, text=True) as process:
        assert process.stdout is not None
        assert process.stdout.readline() == "begun\n"
        process.send_signal(signal.SIGTERM)
    assert process.returncode == 128 + signal.SIGTERM
    assert contents(folder) == before


# --- the other commands


def test_find_explain_and_prepare(folder: Path, capsys: Capture) -> None:
    before = contents(folder)
    assert run("find", MODEL, "-t", "quant_conv", "--json") == 0
    matches = json.loads(capsys.readouterr().out)
    assert [(match["pattern_index"], match["nodes"]) for match in matches] == [(0, [0]), (1, [1])]
    # The second transformation is explained on what the first one leaves.
    assert run("explain", MODEL, "-t", "quant_gemm", "-t", "quant_conv", "-t", "replace_quant") == 0
    shown = capsys.readouterr().out
    assert "the graph has no Gemm node" in shown
    assert "has no TesselQuant node" not in shown
    assert contents(folder) == before
    assert run("prepare", MODEL, "-o", OUT, "--step", "write_conv_group") == 0
    assert re.search(r"write_conv_group +2", capsys.readouterr().out)
    assert [[item.name for item in node.attribute] for node in onnx.load(OUT).graph.node] == [["group"]] * 2


def test_reports_recipes_and_dry_runs(folder: Path, capsys: Capture) -> None:
    Path("mine.toml").write_text('[mine]\nsummary = "Mine"\ntransformations = ["quant_conv", "quant_gemm"]\n')
    recipe = ["--recipe-file", "mine.toml", "--recipe", "mine"]
    assert run("recipes", "--recipe-file", "mine.toml") == 0
    assert "mine: Mine" in capsys.readouterr().out
    assert run("apply", MODEL, *recipe, "--dry-run", "--report", "r.json", "--skip", "quant_gemm") == 0
    report = json.loads(Path("r.json").read_text())
    assert {step["transformation"] for step in report["steps"]} == {"quant_conv"}
    assert report["stable"] is True
    assert not Path(OUT).exists()
    assert run("apply", MODEL, "-t", "quant_gemm", "-o", OUT, "--fail-if-unchanged", "-q") == 4
    assert contents(folder).keys() == {MODEL, "mine.toml", "r.json"}


def test_verify_and_diff_tell_equal_from_different(folder: Path, capsys: Capture) -> None:
    changed = make_model()
    changed.graph.initializer[1].raw_data = np.full(64, 9, np.float32).tobytes()
    onnx.save_model(changed, "changed.onnx")
    assert [run("verify", MODEL, other) for other in (MODEL, "changed.onnx")] == [0, 3]
    assert "first tensor that differs: 'y'" in capsys.readouterr().out
    assert [run("diff", MODEL, "changed.onnx", "--html", "d.html") for _ in range(2)] == [0, 1]
    assert "exists already" in capsys.readouterr().err


def test_verify_on_given_inputs(folder: Path, capsys: Capture) -> None:
    x = np.random.default_rng(1).random((3, 1, 3, 8, 8), np.float32)
    np.savez("data.npz", x=x)
    assert run("verify", MODEL, MODEL, "--inputs", "data.npz", "--json") == 0
    found = json.loads(capsys.readouterr().out)
    assert (found["passed"], found["runs"], found["seed"]) == (True, 3, None)
    np.savez("data.npz", x=x * np.inf)
    assert run("verify", MODEL, MODEL, "--inputs", "data.npz") == 1
    assert "not finite" in capsys.readouterr().err
    np.savez("data.npz", x=x + np.float32(3e38))
    assert run("verify", MODEL, MODEL, "--inputs", "data.npz") == 7
