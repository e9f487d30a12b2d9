"""The output of commands fits 80 columns, and names that a user types are whole."""

import re
from pathlib import Path
from typing import Any

import onnx
import pytest

import onnxgraft
from helpers.small_graphs import model_of, ones
from onnxgraft.catalogue import rows
from onnxgraft.cli import main
from onnxgraft.text_table import fitted, table

LONG = "/model.24/detection_head/cv3.2/conv_with_a_long_name/Conv_output_of_the_third_scale_0"


def save_model(path: Path) -> None:
    """Two Convs and a Gemm, with names as exporters make them and one longer than a line."""
    lines = [f"Conv x w -> {LONG}", f"Relu {LONG} -> a", "Conv a w -> b", "Flatten b -> c", "Gemm c g -> y"]
    tensors = {"w": ones(4, 4, 1, 1), "g": ones(64, 3)}
    model = model_of(lines, inputs={"x": [1, 4, 4, 4]}, outputs={"y": [1, 3]}, tensors=tensors)
    for number, node in enumerate(model.graph.node):
        node.name = f"/model.{number}/cv{number}/conv/{node.op_type}_with_a_name_of_some_length"
    onnx.save_model(model, path)


# Arguments, and the names that must be whole in the output. {m}, {q}, {o}: a model, the quantized one, an output.
COMMANDS: dict[str, tuple[str, list[str]]] = {
    "list": ("list", list(rows())),
    "rules": ("list --rules", ["fold_batch_norm"]),
    "recipes": ("recipes", list(onnxgraft.recipes())),
    "apply": ("apply {m} -t quant_conv -t replace_concat_quant_v1 -o {o}.onnx", ["replace_concat_quant_v1"]),
    "recipe": ("apply {m} --recipe yolov5 --dry-run", ["replace_concat_quant_v1", "fuse_bn_quant"]),
    "prepare": ("prepare {m} -o {o}.onnx", ["merge_equal_nodes", "fold_batch_norms"]),
    "find": ("find {m} -t quant_conv", [LONG, "quant_conv"]),
    "explain": ("explain {m} -t quant_conv -t quant_matmul", ["MatMul:0,1i->2"]),
    "explain a node": ("explain {m} --node a", ["/model.1/cv1/conv/Relu_with_a_name_of_some_length"]),
    "inspect": ("inspect {m}", ["efficientnet"]),
    "inspect both": ("inspect {m} {q}", []),
    "diff": ("diff {m} {q}", ["/model.0/cv0/conv/Conv_with_a_name_of_some_length"]),
    "verify": ("verify {m} {m}", ["y"]),
    "measure": ("verify {m} {q} --per-tensor --sensitivity --sqnr 1", [LONG]),
    "calibrate": ("calibrate {m} --data random:2 -o {o}.json", []),
    "run": ("run {m} --inputs random:1 --tensor {long} --tensor y -o {o}.npz", [LONG]),
    "lower": ("lower {q} -o {o}.onnx", []),
    "pattern": ("pattern {m} --from x --to y", []),
    "show": ("show quant_conv", []),
}  # fmt: skip


@pytest.fixture(scope="module")
def models(tmp_path_factory: pytest.TempPathFactory) -> dict[str, str]:
    folder = tmp_path_factory.mktemp("models")
    save_model(folder / "m.onnx")
    onnxgraft.rewrite(folder / "m.onnx", ["quant_conv", "quant_gemm"], seed=0, output=folder / "q.onnx")
    return {"m": str(folder / "m.onnx"), "q": str(folder / "q.onnx")}


@pytest.mark.parametrize(("arguments", "names"), COMMANDS.values(), ids=COMMANDS)
def test_every_command_fits(
    arguments: str,
    names: list[str],
    models: dict[str, str],
    tmp_path: Path,
    capsys: pytest.CaptureFixture[str],
    monkeypatch: pytest.MonkeyPatch,
) -> None:
    monkeypatch.setenv("COLUMNS", "80")
    monkeypatch.chdir(tmp_path)  # short names of files
    places = {**models, "o": "out", "long": LONG}
    code = main([part.format_map(places) for part in arguments.split()])
    shown, complaints = capsys.readouterr()
    assert code in {0, 3}
    assert not complaints or "the data are random numbers" in complaints
    assert "\x1b" not in shown
    for line in shown.splitlines():
        assert len(line) <= 80 or len(line.split()) == 1 or ".onnx" in line, line
    words = set(re.split(r"[\s'\",;:()\[\]]+", shown)) | set(re.findall(r"'([^' ]*)'", shown))
    for name in names:
        assert name in words or f" {name}" in shown, name


def test_tables() -> None:
    """Wrapped cells, long names, numbers, footers and notes; a line is at most as wide as the terminal."""
    rows_: list[tuple[Any, ...]] = [("short", "b c " * 30, 7), ("n" * 70, "few words", 12345), (LONG, "", "")]
    text = table(("Name", "Text", "Number"), rows_, numbers=(2,), footer=("total", "", 9), notes=["a note", "", ""])
    lines = text.split("\n")
    assert all(len(line) <= 80 or line == LONG for line in lines), text
    assert {LONG, "n" * 70, "    a note"} <= set(lines)
    assert [text.split().count(word) for word in ("b", "c")] == [30, 30]
    assert lines[-1].endswith("9")
    assert lines[0].endswith("Number")
    assert {len(line) for line in lines if line.endswith(("7", "12345", "9"))} == {len(lines[0])}
    assert fitted("  " + "word " * 30 + LONG).split("\n")[-1].strip() == LONG


def test_the_operators_at_the_end_of_apply(models: dict[str, str], tmp_path: Path, capsys: Any) -> None:
    output = tmp_path / "out.onnx"
    assert main(["apply", models["m"], "-t", "quant_conv", "-o", str(output)]) == 0
    shown = capsys.readouterr().out
    before, after = onnx.load(models["m"]).graph.node, onnx.load(output).graph.node
    assert re.search(rf"all nodes +{len(before)} +{len(after)} +\+{len(after) - len(before)}\n", shown)
    assert re.search(r"TesselQuant +0 +2 +\+2\n", shown)
    assert re.search(r"unchanged operators +5 +5\n", shown)
    assert "size" in shown
    assert main(["apply", models["m"], "-t", "quant_conv", "--dry-run"]) == 0
    assert "size" not in capsys.readouterr().out
