"""The command line: its output and files; bad input leaves no traces."""

import json
import os
import re
import shutil
import signal
import subprocess
import sys
from collections.abc import Callable
from itertools import pairwise
from pathlib import Path

import numpy as np
import onnx
import pytest
from onnx import numpy_helper

from conftest import REPOSITORY
from helpers.small_graphs import model_of, rename_tensors
from onnxgraft import quant
from onnxgraft.cli import main, model_output
from onnxgraft.cli.exit_codes import ExitCode
from onnxgraft.io import model_files
from onnxgraft.io.staged_files import StagedFile

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
    shown = {row[0]: [*row[1:], below[0]] for row, below in pairwise(rows) if len(row) == 3}
    runnable = {cls().get_simple_name(): cls for cls in vars(quant).values() if hasattr(cls, "get_simple_name")}
    assert list(shown) == ["Name and class", *runnable]
    assert shown["quant_matmul"] == ["3", "NLP and CV models", "QuantMatMulTransformation"]
    assert shown["replace_quant_v2"] == ["5", "YOLO, U2Net", "ChangeTesselQuantTransformationV2"]


@pytest.mark.parametrize("external", [False, True])
def test_apply_writes_the_model_and_says_what_it_did(folder: Path, capsys: Capture, external: bool) -> None:
    if external:
        save_external(folder)
    assert apply("-t", "quant_gemm", "--seed", "7") == 0
    shown = capsys.readouterr()
    assert shown.err == ""
    numbers = {line.split()[0]: line.split()[1:6] for line in reversed(shown.out.splitlines()) if line.strip()}
    assert numbers["quant_conv"] == ["2", "2", "0", "2", "->"]  # found, replaced, refused, nodes before and after
    assert numbers["quant_gemm"] == ["0", "0", "0", "6", "->"]
    assert numbers["total"] == ["2", "2", "0", "2", "->"]
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


def external_through_a_loop(folder: Path) -> None:
    external_with("location", "loop/weights.bin")(folder)
    (folder / "loop").symlink_to("loop")


def external_as_pointer(folder: Path) -> None:
    save_external(folder)
    (folder / "weights.bin").write_bytes(b"version https://git-lfs.github.com/v1\n")


def as_json(folder: Path) -> None:
    (folder / MODEL).rename(folder / "m.json")


def without_operator_set(folder: Path) -> None:
    model = make_model()
    del model.opset_import[:]
    (folder / MODEL).write_bytes(model.SerializeToString())


def nothing(_: Path) -> None:
    pass


def starting_with(content: bytes) -> Callable[[Path], object]:
    return write(content + bytes(range(256)))


def as_pipe(folder: Path) -> None:
    (folder / MODEL).unlink()
    os.mkfifo(folder / MODEL)


def own_data_by_another_name(make: Callable[[str, str], object]) -> Callable[[Path], None]:
    def prepare(folder: Path) -> None:
        save_external(folder)
        make("weights.bin", OUT)

    return prepare


def name_in_latin_1(folder: Path) -> None:
    content = (folder / MODEL).read_bytes()
    (folder / MODEL).write_bytes(content.replace(b"\x0a\x01y", b"\x0a\x01\xe9", 1))


def name_that_fakes_a_line(folder: Path) -> None:
    model = make_model()
    model.graph.initializer[0].name = "w\n\x1b[31monnxgraft: error: "
    model.graph.initializer[0].data_location = onnx.TensorProto.EXTERNAL
    (folder / MODEL).write_bytes(model.SerializeToString())


Make = Callable[[Path], object]
CONV = f"apply {MODEL} -t quant_conv"
WRITE = f"{CONV} -o {OUT}"
JSON = "apply m.json -t quant_conv --dry-run"
BAD_INPUT: dict[str, tuple[int, str, Make, str]] = {
    # name: exit code, part of the message, how the folder is prepared, arguments
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
    "cut off": (1, "incomplete", cut_off, WRITE),
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
    "location with NUL": (1, "contain a NUL", external_with("location", "a\0b"), WRITE),
    "location too long": (1, "File name too long", external_with("location", "a" * 5000), WRITE),
    "location that is a link to itself": (1, "loop", external_through_a_loop, WRITE),
    "LFS pointer as data": (1, "run `git lfs pull`", external_as_pointer, WRITE),
    "gzip": (1, "compressed with gzip", starting_with(b"\x1f\x8b\x08\x08"), WRITE),
    "zip": (1, "zip archive", starting_with(b"PK\x03\x04" + bytes(26)), WRITE),
    "PyTorch": (1, "a PyTorch file", starting_with(b"PK\x03\x04" + bytes(26) + b"archive/data.pkl"), WRITE),
    "pickle": (1, "pickled", starting_with(b"\x80\x02\x8a\x0al\xfc"), WRITE),
    "safetensors": (1, "safetensors", starting_with(b"@\0\0\0\0\0\0\0" + b'{"a": '), WRITE),
    "TFLite": (1, "TFLite", starting_with(b"\x1c\0\0\0TFL3"), WRITE),
    "LFS pointer": (1, "run `git lfs pull`", write(b"version https://git-lfs.github.com/v1\n"), WRITE),
    "HTML": (1, "HTML page", write(b"\n<!DOCTYPE html><html>"), WRITE),
    "pipe": (1, "is a pipe", as_pipe, WRITE),
    "endless device": (1, "is a device", nothing, "find /dev/zero -t quant_conv"),
    "standard output as model": (2, "'-' is not the name of a file", nothing, f"{CONV} -o -"),
    "data file as output": (1, "has its weights there", save_external, f"{CONV} -o weights.bin --force"),
    "data file as output by a link": (1, "weights there", own_data_by_another_name(os.symlink), f"{WRITE} --force"),
    "data file as output by a hard link": (1, "weights there", own_data_by_another_name(os.link), f"{WRITE} --force"),
    "two outputs in one file": (1, "are the same file", nothing, f"{CONV} -o r.json --report ./r.json"),
    "report over the model": (
        1,
        "the model that is read",
        as_json,
        f"{JSON} --report m.json --force",
    ),
    "name that is not UTF-8": (1, "node 1 (Conv): input 0 b'\\xe9' is not UTF-8", name_in_latin_1, WRITE),
    "name that fakes a line": (1, "'w \\x1b[31monnxgraft: error: '", name_that_fakes_a_line, WRITE),
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
        # The data file is in place already when the model follows.
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


@pytest.mark.parametrize(
    ("number", "ignored"), [(signal.SIGTERM, False), (signal.SIGHUP, False), (signal.SIGHUP, True)]
)
def test_a_terminated_process_leaves_no_temporary_file(folder: Path, number: signal.Signals, ignored: bool) -> None:
    before = contents(folder)
    program = """
import time, onnxgraft.quant
from onnxgraft.__main__ import run
def wait(self, graph):
    print("begun", flush=True)
    time.sleep(SECONDS)
    return 0
onnxgraft.quant.QuantConvTransformation.apply = wait
run()
"""
    # `nohup` ignores SIGHUP, so the tests may run with it ignored.
    way = "SIG_IGN" if ignored else "SIG_DFL"
    program = f"import signal; signal.signal(signal.SIGHUP, signal.{way})" + program
    program = program.replace("SECONDS", "1" if ignored else "60")
    arguments = ["apply", MODEL, "-t", "quant_conv", "-o", OUT]
    with subprocess.Popen([sys.executable, "-c", program, *arguments], stdout=subprocess.PIPE, text=True) as process:
        assert process.stdout is not None
        assert process.stdout.readline() == "begun\n"
        process.send_signal(number)
        process.communicate()
    assert process.returncode == (0 if ignored else 128 + number)
    assert (contents(folder) == before) is not ignored


# --- the other commands


def test_find_explain_and_prepare(folder: Path, capsys: Capture) -> None:
    before = contents(folder)
    assert run("find", MODEL, "-t", "quant_conv", "--json") == 0
    matches = json.loads(capsys.readouterr().out)
    assert [(match["pattern_index"], match["nodes"]) for match in matches] == [(0, [0]), (1, [1])]
    # The second transformation is explained on the result of the first one.
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


# --- output that cannot be shown


PROCESS = [sys.executable, "-m", "onnxgraft"]


@pytest.mark.parametrize(
    ("where", "code", "says"),
    [
        (">/dev/full", 6, "No space left on device"),
        (">&-", 6, "it is closed"),
        (">&- 2>&-", 6, ""),
        ("2>/dev/full", 0, ""),
        ("| true; exit ${PIPESTATUS[0]}", 141, ""),
    ],
)
def test_output_that_cannot_be_shown_changes_no_file(folder: Path, where: str, code: int, says: str) -> None:
    command = f"{' '.join(PROCESS)} apply {MODEL} -t quant_conv -o {OUT} --seed 1 {where}"
    done = subprocess.run(["bash", "-c", command], capture_output=True, text=True)
    assert done.returncode == code, done.stderr
    assert done.stderr.count("\n") == bool(says)
    assert says in done.stderr
    assert len(onnx.load(OUT).graph.node) == 6


def test_an_encoding_without_frames(folder: Path) -> None:
    environment = {**os.environ, "PYTHONIOENCODING": "ascii"}
    for arguments in (["show", "quant_gemm"], ["apply", MODEL, "-t", "quant_conv", "--dry-run"]):
        done = subprocess.run([*PROCESS, *arguments], capture_output=True, env=environment)
        assert (done.returncode, done.stderr) == (0, b"")
        assert b"---" in done.stdout
        assert b"\\u" not in done.stdout


def test_a_report_onto_a_full_disk_stops_the_model_too(folder: Path, monkeypatch: pytest.MonkeyPatch) -> None:
    before = contents(folder)
    seal = StagedFile.seal

    def fail(self: StagedFile) -> None:
        if self.named.suffix == ".json":
            raise OSError(28, "No space left on device")
        seal(self)

    monkeypatch.setattr(StagedFile, "seal", fail)
    assert apply("--report", "r.json") == 1
    assert contents(folder) == before


def test_an_error_after_writing_says_so(folder: Path, monkeypatch: pytest.MonkeyPatch, capsys: Capture) -> None:
    def fail(saved: object) -> None:
        raise KeyboardInterrupt if Path("again").exists() else ValueError("broken")

    monkeypatch.setattr(model_output, "tell", fail)
    assert apply() == 6
    assert f"after writing '{OUT}': unexpected ValueError" in capsys.readouterr().err
    Path("again").touch()
    assert apply("--force") == 130
    assert f"interrupted; after writing '{OUT}'" in capsys.readouterr().err


def test_names_cannot_steer_the_terminal(folder: Path, capsys: Capture) -> None:
    model = make_model()
    rename_tensors(model.graph, "{}\n\x1b[2J\u202e\x9bonnxgraft: error: ")
    for node in model.graph.node:
        node.name += "\r\x07"
    onnx.save_model(model, MODEL)
    other = make_model()
    onnx.save_model(other, "other.onnx")
    for arguments in (
        ["find", MODEL, "-t", "quant_conv"],
        ["explain", MODEL, "-t", "quant_conv", "-t", "fuse_bn_quant", "-t", "replace_quant"],
        ["diff", MODEL, "other.onnx"],
        ["verify", MODEL, "other.onnx"],
        ["verify", MODEL, MODEL, "-vv"],
        ["apply", MODEL, "-t", "quant_conv", "-vv", "--dry-run"],
        ["apply", MODEL, "-t", "\x1b[2J", "--dry-run", "-v"],
    ):
        run(*arguments)
        shown = capsys.readouterr()
        assert set(shown.out + shown.err) & set("\x1b\r\x07\u202e\x9b") == set(), arguments
        assert not any(line.startswith("onnxgraft: error: '") for line in shown.err.splitlines())


def test_two_outputs_of_one_run_and_data_files_of_others(folder: Path) -> None:
    """Overwriting a model leaves data files that it does not refer to, and those of the model that is read."""
    save_external(folder, f"res{OUT}.data")
    Path(MODEL).rename(OUT)
    Path(f"{OUT}.data").write_bytes(b"of another model")
    onnx.save_model(make_model(), MODEL)
    assert apply("--force") == 0
    assert Path(f"{OUT}.data").read_bytes() == b"of another model"
    Path(f"{OUT}.data").unlink()
    save_external(folder, f"{OUT}.data")
    shutil.copy(MODEL, OUT)
    assert apply("--force") == 0
    assert len(onnx.load(MODEL).graph.node) == 2


def test_the_deleted_current_folder(folder: Path, monkeypatch: pytest.MonkeyPatch, capsys: Capture) -> None:
    (folder / "gone").mkdir()
    monkeypatch.chdir(folder / "gone")
    (folder / "gone").rmdir()
    assert apply() == 1
    assert "unexpected" not in (shown := capsys.readouterr().err)
    assert shown.count("\n") == 1


def test_json_and_exit_codes(folder: Path, capsys: Capture) -> None:
    onnx.save_model(model_of(["Relu x -> z"], inputs={"x": [1, 3, 8, 8]}, outputs=["z"]), "other.onnx")
    for arguments, code, key in (
        (["list"], 0, "prepared_for"),
        (["recipes"], 0, "transformations"),
        (["show", "quant_conv"], 0, "pairs"),
        (["diff", MODEL, "other.onnx", "--exit-code"], 3, "regions"),
        (["diff", MODEL, MODEL, "--exit-code"], 0, "regions"),
    ):
        assert run(*arguments, "--json") == code, arguments
        found = json.loads(capsys.readouterr().out)
        assert key in (found[0] if isinstance(found, list) else found)
    assert run("apply", MODEL, "-t", "quant_conv", "--dry-run", "--skip-step", "infer_shapes") == 0
    assert "infer_shapes" not in capsys.readouterr().out
    assert run("apply", MODEL, "-t", "quant_conv", "--dry-run", "--skip-step", "nothing") == 2
    table = dict(
        re.findall(r"^\| (\d+) \| (.+) \|$", (REPOSITORY / "docs/reference/exit-codes.md").read_text(), re.MULTILINE)
    )
    assert {int(code) for code in table} == set(ExitCode)


def test_a_failure_that_is_left_out_has_a_code_of_its_own(
    folder: Path, monkeypatch: pytest.MonkeyPatch, capsys: Capture
) -> None:
    def fail(*_args: object, **_options: object) -> int:
        raise ValueError("bad weight")

    monkeypatch.setattr(quant.QuantConvTransformation, "apply", fail)
    assert apply("-q", "--keep-going", "-t", "quant_gemm") == 5
    assert "left out, since it failed: quant_conv" in capsys.readouterr().err
    assert Path(OUT).exists()


@pytest.mark.parametrize(
    ("line", "wanted"),
    [
        ("onnxgraft ver", {"verify "}),
        ("onnxgraft apply m.onnx --keep", {"--keep-external-data", "--keep-going"}),
        ("onnxgraft apply m.onnx -t quant_m", {"quant_matmul "}),
        ("onnxgraft find m.onnx --recipe yolov5", {"yolov5 "}),
        ("onnxgraft prepare m.onnx --step infer", {"infer_shapes "}),
    ],
)
def test_completion(folder: Path, line: str, wanted: set[str]) -> None:
    asked = {
        "_ARGCOMPLETE": "1",
        "COMP_LINE": line,
        "COMP_POINT": str(len(line)),
        "_ARGCOMPLETE_STDOUT_FILENAME": "said",
    }
    subprocess.run(PROCESS, env={**os.environ, **asked}, check=True, capture_output=True)
    assert set(Path("said").read_text().split("\x0b")) == wanted
