"""`lower` and `run`, from the command line."""

from pathlib import Path

import numpy as np
import onnx
import pytest

from helpers.occurrences import packed
from helpers.small_graphs import model_of
from onnxgraft.cli import main
from onnxgraft.evaluation import HARDWARE, evaluate

LINES = ["TesselQuant:scale=2:offset=1 x -> q", "Conv q w -> c", "TesselDequant c s -> d", "Reshape d shape -> y"]


@pytest.fixture
def quantized(tmp_path: Path, monkeypatch: pytest.MonkeyPatch) -> onnx.ModelProto:
    monkeypatch.chdir(tmp_path)
    weights = {"w": np.arange(-32, 32, dtype=np.int8).reshape(4, 4, 2, 2), "s": packed(np.full(4, 0.25, "f"))}
    weights["shape"] = np.array([-1, 4, 4])  # also in a file, where onnxruntime does not look for it
    model = model_of(LINES, inputs={"x": ("n", 4, 3, 3)}, outputs=["y"], tensors=weights)
    onnx.save(model, "q.onnx", save_as_external_data=True, location="q.data", size_threshold=0)
    return model


@pytest.mark.parametrize("form", [[], ["--qdq"], ["--save-as-external-data", "--external-data-threshold", "100"]])
def test_lowered_models_hold_standard_operators(quantized: onnx.ModelProto, form: list[str]) -> None:
    assert main(["lower", "q.onnx", "-o", "l.onnx", *form]) == 0
    assert not any(node.op_type.startswith("Tessel") for node in onnx.load("l.onnx").graph.node)
    onnx.checker.check_model("l.onnx", full_check=True)
    assert main(["verify", "q.onnx", "l.onnx"]) == 0
    assert main(["lower", "q.onnx", "-o", "l.onnx", *form]) == 1  # it exists already


def test_run_writes_what_the_model_computes(quantized: onnx.ModelProto, capsys: pytest.CaptureFixture[str]) -> None:
    x = np.random.default_rng(1).integers(-60, 60, (3, 1, 4, 3, 3)).astype(np.float32)
    expected = [evaluate(quantized, {"x": sample}, HARDWARE, outputs=["q", "y"]) for sample in x]
    np.savez("one.npz", x=x[0])
    np.savez("three.npz", x=x)
    assert main(["run", "q.onnx", "--inputs", "one.npz", "-o", "out.npz"]) == 0
    assert "float32" in capsys.readouterr().out
    np.testing.assert_array_equal(np.load("out.npz")["y"], expected[0]["y"])
    more = ["--tensor", "q", "--tensor", "y", "--evaluator", "reference"]
    assert main(["run", "q.onnx", "--inputs", "three.npz", "-o", "out.npz", "--force", *more]) == 0
    for name, values in np.load("out.npz").items():
        np.testing.assert_array_equal(values, np.stack([found[name] for found in expected]))


@pytest.mark.parametrize(
    ("arguments", "message"),
    [
        (["--inputs", "missing.npz"], "no file or folder 'missing.npz'"),
        (["--inputs", "random:1", "--tensor", "z"], "no node of the model writes a tensor 'z'"),
        (["--inputs", "other.npz"], "the model has no input 'z'"),
    ],
)
def test_what_cannot_be_run(
    quantized: onnx.ModelProto, arguments: list[str], message: str, capsys: pytest.CaptureFixture[str]
) -> None:
    np.savez("other.npz", z=np.zeros(3, np.float32))
    assert main(["run", "q.onnx", "-o", "out.npz", *arguments]) == 1
    assert message in capsys.readouterr().err
    assert not Path("out.npz").exists()
