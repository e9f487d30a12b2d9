"""Decibels of outputs and tensors, the share that quantize nodes cut off, bits of sums, and each operator alone."""

import json
import math
from pathlib import Path
from typing import Any

import numpy as np
import onnx
import pytest

from helpers.small_graphs import Array, model_of
from onnxgraft import calibrate, rewrite
from onnxgraft.cli import main
from onnxgraft.errors import VerificationError
from onnxgraft.evaluation import HARDWARE, evaluate
from onnxgraft.verification import measure
from onnxgraft.verification.accuracy_page import accuracy_page
from onnxgraft.verification.noise import Noise

LINES = ["Conv x w1 b1 -> a", "Relu a -> r", "Conv r w2 b2 -> c", "Concat:axis=1 c r -> y"]


@pytest.fixture(scope="module")
def samples() -> list[dict[str, Array]]:
    rng = np.random.default_rng(1)
    return [{"x": rng.normal(size=(1, 2, size, 5)).astype(np.float32)} for size in (4, 6, 5)]


@pytest.fixture(scope="module")
def models(samples: list[dict[str, Array]]) -> tuple[onnx.ModelProto, onnx.ModelProto]:
    rng = np.random.default_rng(2)
    shapes = {"w1": (3, 2, 1, 1), "b1": (3,), "w2": (4, 3, 1, 1), "b2": (4,)}
    tensors: dict[str, Array] = {name: rng.normal(size=shape).astype(np.float32) for name, shape in shapes.items()}
    before = model_of(LINES, inputs={"x": (1, 2, "h", 5)}, outputs=["y"], tensors=tensors)
    after = onnx.ModelProto.FromString(before.SerializeToString())
    # The ranges come from one sample, so some values of the others are cut off.
    rewrite(after, "quant_conv", calibration=calibrate(before, samples[:1]))
    return before, after


def computed(model: onnx.ModelProto, samples: Any, *names: str) -> list[Array]:
    """The elements of each tensor over all samples, in one row."""
    runs = [evaluate(model, sample, HARDWARE, outputs=names) for sample in samples]
    return [np.concatenate([run[name].ravel() for run in runs]).astype(np.float64) for name in names]


def test_figures_are_those_of_the_formulas(models: Any, samples: list[dict[str, Array]]) -> None:
    before, after = models
    result = measure(before, after, iter(samples), wanted=20, per_tensor=True, sensitivity=True)
    assert (result.samples, result.passed, result.skipped) == (3, True, [])
    names = [row.name for row in result.tensors]
    assert names == ["a", "r", "c", "y"]
    for row, x, y in zip(
        result.tensors, computed(before, samples, *names), computed(after, samples, *names), strict=True
    ):
        assert row.sqnr == pytest.approx(10 * math.log10((x**2).sum() / ((x - y) ** 2).sum()), abs=1e-3)
        assert row.max_error == pytest.approx(np.abs(x - y).max(), rel=1e-4)
        assert row.scale == pytest.approx(np.abs(x).max(), rel=1e-6)
    assert result.outputs[0].sqnr == pytest.approx(result.tensors[-1].sqnr)
    node = next(one for one in result.quantize_nodes if one.tensor == "x")
    steps = np.concatenate([sample["x"].ravel() for sample in samples]) * node.scale + node.offset
    assert node.saturated == pytest.approx(np.mean((steps > 127.5) | (steps < -128.5)))
    assert node.saturated > 0
    for one in result.sums:
        largest = np.abs(computed(after, samples, one.tensor)[0]).max()
        assert one.largest == largest
        assert 2 ** (one.bits - 2) - 1 < largest <= 2 ** (one.bits - 1) - 1
    alone = {one.tensor: one.sqnr for one in result.sensitivities}
    assert set(alone) == {"a", "c"}
    half = onnx.ModelProto.FromString(after.SerializeToString())  # the second convolution quantized, the first one not
    last = next(place for place, node in enumerate(half.graph.node) if "a" in node.output)
    del half.graph.node[: last + 1]
    half.graph.node.insert(0, before.graph.node[0])
    half.graph.initializer.extend(before.graph.initializer[:2])
    ((x,), (y,)) = computed(before, samples, "y"), computed(half, samples, "y")
    assert alone["c"] == pytest.approx(10 * math.log10((x**2).sum() / ((x - y) ** 2).sum()), abs=1e-3)
    assert accuracy_page(result).count("<circle") == len(names)


def test_tensors_of_another_meaning_are_not_compared(models: Any, samples: list[dict[str, Array]]) -> None:
    before, after = models[0], onnx.ModelProto.FromString(models[0].SerializeToString())
    after.graph.node[1].op_type = "Elu"
    result = measure(before, after, samples, per_tensor=True)
    assert ([row.name for row in result.tensors], result.skipped) == (["a", "c", "y"], ["r"])


@pytest.mark.parametrize(
    ("before", "after", "sqnr", "exact"),
    [
        ([3.0, 4.0], [3.0, 4.0], math.inf, True),
        ([3.0, 4.0], [3.0, 4.5], 20.0, False),
        ([0.0], [0.1], -math.inf, False),
        ([3.0, math.nan], [3.0, 7.0], math.inf, True),
        ([3.0, 4.0], [3.0, math.nan], -math.inf, False),
        ([math.inf], [math.inf], math.nan, False),
        ([3.0, 4.0], [3.0], -math.inf, False),
    ],
)
def test_noise(before: list[float], after: list[float], sqnr: float, exact: bool) -> None:
    noise = Noise()
    noise.add(np.array(before), np.array(after))
    row = noise.row("t", "Relu 't'")
    assert row.sqnr == pytest.approx(sqnr, nan_ok=True)
    assert row.exact == exact


def test_no_samples(models: Any) -> None:
    with pytest.raises(VerificationError, match="there are no samples"):
        measure(models[0], models[1], [])


def test_the_command(
    models: Any, samples: Any, tmp_path: Path, monkeypatch: pytest.MonkeyPatch, capsys: pytest.CaptureFixture[str]
) -> None:
    monkeypatch.chdir(tmp_path)
    for name, model in zip(("before.onnx", "after.onnx"), models, strict=True):
        onnx.save(model, name)
    np.savez("data.npz", **samples[0])
    command = ["verify", "before.onnx", "after.onnx", "--data", "data.npz"]
    assert main([*command, "--sqnr", "20"]) == 0
    assert "at least the required 20 dB" in capsys.readouterr().out
    assert main([*command, "--sqnr", "90", "--per-tensor", "--sensitivity", "--json"]) == 3
    found = json.loads(capsys.readouterr().out)
    assert [len(found[name]) for name in ("outputs", "tensors", "quantize_nodes", "sums", "sensitivities")] == [
        1,
        4,
        2,
        2,
        2,
    ]
    assert main([*command, "--html", "a.html"]) == 0
    assert "Tensors, in the order of computation" in capsys.readouterr().out
    assert "Where accuracy is lost" in Path("a.html").read_text()
    assert main([*command, "--html", "a.html"]) == 1  # it is there
    assert main([*command, "--sqnr", "20", "--tolerance", "1"]) == 1
    onnx.save(model_of(["Relu x -> r", "Neg r -> n", "Log n -> y"], inputs={"x": (2,)}, outputs=["y"]), "lost.onnx")
    np.savez("data.npz", x=np.ones(2, np.float32))
    assert main(["verify", "lost.onnx", "lost.onnx", "--data", "data.npz", "--sqnr", "1"]) == 7
