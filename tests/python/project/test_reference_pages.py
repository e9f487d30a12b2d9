"""The reference pages list what the program has: commands, exit codes, and what `--json` really prints."""

import json
import re
from pathlib import Path

import pytest

from onnxgraft.cli import main
from onnxgraft.cli.exit_codes import ExitCode
from tools import command_reference, json_reference

RESNET, QUANTIZED = "examples/models/resnet18_timm_c11.onnx", "quantized.onnx"
TYPED = {
    "apply MODEL.onnx --recipe NAME -o OUT.onnx --report R.json": (
        f"apply {RESNET} --recipe resnet --seed 0 -o {QUANTIZED} --report R.json -q"
    ),
    "show NAME --json": "show quant_conv --json",
    "find MODEL.onnx -t NAME --json": f"find {RESNET} -t quant_conv --json",
    "explain MODEL.onnx -t NAME --json": f"explain {RESNET} -t quant_conv -t delete_concat --json",
    "explain MODEL.onnx --node NAME --json": f"explain {RESNET} --node /conv1/Conv --json",
    "inspect MODEL.onnx --json": f"inspect {RESNET} --json",
    "inspect MODEL.onnx AFTER.onnx --json": f"inspect {RESNET} {QUANTIZED} --json",
    "verify BEFORE.onnx AFTER.onnx --json": f"verify {RESNET} {QUANTIZED} --json",
    "verify BEFORE.onnx AFTER.onnx --data DATA --per-tensor --json": (
        f"verify {RESNET} {QUANTIZED} --data random:1 --per-tensor --json"
    ),
    "diff BEFORE.onnx AFTER.onnx --json": f"diff {RESNET} {QUANTIZED} --json",
    "pattern MODEL.onnx --nodes NAME --json": f"pattern {RESNET} --nodes /conv1/Conv --json",
}


def test_pages_are_up_to_date(repository: Path) -> None:
    assert command_reference.page() == (repository / "docs/reference/command-line.md").read_text(), "run make docs"
    assert json_reference.page() == (repository / "docs/reference/json.md").read_text(), "run make docs"
    listed = re.findall(r"^\| (\d+) \|", (repository / "docs/reference/exit-codes.md").read_text(), re.MULTILINE)
    assert [int(code) for code in listed] == [code.value for code in ExitCode]


def test_json_is_as_described(
    repository: Path, tmp_path: Path, monkeypatch: pytest.MonkeyPatch, capsys: pytest.CaptureFixture[str]
) -> None:
    (tmp_path / "examples").symlink_to(repository / "examples")
    monkeypatch.chdir(tmp_path)
    for command in sorted(json_reference.OUTPUTS, key=lambda command: "apply" not in command):
        code = main(TYPED.get(command, command).split())
        printed = capsys.readouterr().out
        text = Path("R.json").read_text() if "R.json" in command else printed
        assert code in (ExitCode.DONE, ExitCode.DIFFERENT), command
        assert list(json_reference.mismatches(json.loads(text), json_reference.OUTPUTS[command])) == [], command


@pytest.mark.parametrize("value", [{"name": 1}, {}, {"name": "a", "more": 0}, []])
def test_a_mismatch_is_found(value: object) -> None:
    kind = json_reference.Fields("Made up", (("name", str, ""),))
    assert list(json_reference.mismatches(value, kind))
