"""Ranges are those of the tensors, whatever the samples' shapes and the memory; files are whole or not written."""

import json
from dataclasses import replace
from pathlib import Path
from typing import Any

import numpy as np
import onnx
import pytest
from onnx import numpy_helper

from helpers.small_graphs import model_of
from onnxgraft import Calibration, CalibrationError, calibrate, prepare
from onnxgraft.calibration import Range, WeightNumbers, model_fingerprint
from onnxgraft.calibration.histograms import Statistics
from onnxgraft.calibration.methods import chooser
from onnxgraft.cli import main
from onnxgraft.evaluation import EvaluationError, ForwardRunner

RNG = np.random.default_rng(0)
LINES = [
    "Conv x w -> a",
    "Relu a -> b",
    "GlobalAveragePool b -> p",
    "Flatten p -> f",
    "Transpose f -> t",
    "Gemm f v -> y",
]
TENSORS = {"w": RNG.normal(size=(4, 3, 3, 3)).astype("f"), "v": RNG.normal(size=(4, 5)).astype("f")}
SAMPLES = [RNG.normal(size=(1, 3, 8 + size, 8)).astype("f") for size in range(4)]


def network() -> onnx.ModelProto:
    return model_of(LINES, inputs={"x": [1, 3, None, 8]}, outputs=["y"], tensors=TENSORS)


@pytest.mark.parametrize("memory", [1, 2**20])
def test_ranges_are_those_of_the_tensors(memory: int) -> None:
    model = network()
    steps: list[tuple[int, int | None]] = []
    found = calibrate(model, iter(SAMPLES), memory=memory, all_tensors=True, progress=lambda *step: steps.append(step))
    names = ["x", "a", "b", "p", "f", "t", "y"]
    runner = ForwardRunner(model, names[1:], evaluator="reference")
    seen: list[dict[str, Any]] = [{"x": sample, **runner.run({"x": sample})} for sample in SAMPLES]
    assert set(found.ranges) == set(names)
    for name in names:
        lows, highs = [values[name].min() for values in seen], [values[name].max() for values in seen]
        assert found.ranges[name].low == pytest.approx(min(lows), rel=1e-5)
        assert found.ranges[name].high == pytest.approx(max(highs), rel=1e-5)
    # The inputs of quantized operators, and the graph's inputs and outputs, are enough to quantize.
    assert set(calibrate(model, SAMPLES, memory=memory).ranges) == {"x", "p", "f", "y"}
    assert steps == [(1, None), (2, None), (3, None), (4, None)]
    assert (found.samples, found.method) == (4, "min-max")


@pytest.mark.parametrize("draw", [RNG.normal, RNG.laplace, lambda size: np.maximum(RNG.normal(size=size), 0)])
def test_methods_on_streams_that_grow(draw: Any) -> None:
    parts = [draw(size=10_000 * (1 + part)).astype("f") * 4.0**part for part in range(4)]
    values = np.concatenate(parts).astype(np.float64)
    seen = Statistics(counts_values=True)
    for part in parts:
        seen.add(part.astype(np.float32))
    assert (seen.low, seen.high) == (values.min(), values.max())
    for percent in (90, 99.5):
        found = chooser("percentile", percent)[1](seen)
        ends = np.percentile(values, [(100 - percent) / 2, (100 + percent) / 2])
        assert (found.low, found.high) == pytest.approx(ends, rel=0.01, abs=1e-6)
        outside = float(((values < found.low) | (values > found.high)).mean())
        assert seen.share_outside(found.low, found.high) == pytest.approx(outside, abs=0.002)
    least = chooser("mse", 0)[1](seen)

    def error(low: float, high: float) -> float:
        step = (high - low) / 255
        rounded = (np.rint(values / step) * step).clip(low, high)
        return float(np.square(rounded - values).mean())

    widest = Range(min(seen.low, 0.0), seen.high)
    tried = [
        error(widest.low * low, widest.high * high)
        for low in np.linspace(0.3, 1, 15)
        for high in np.linspace(0.3, 1, 15)
    ]
    assert error(least.low, least.high) <= 1.05 * min(tried)


def test_tensors_that_cannot_have_a_range_are_named(caplog: pytest.LogCaptureFixture) -> None:
    lines = ["Log x -> l", "Relu x -> r", "Slice r zero zero -> s"]
    model = model_of(lines, inputs={"x": [4]}, outputs=["l", "s"], tensors={"zero": np.array([0])})
    found = calibrate(model, [np.array([-1, 0, 1, 2], "f")], all_tensors=True)
    assert set(found.ranges) == {"x", "r"}
    assert "tensor 'l' had values that are not finite" in caplog.text


def test_fingerprint_tells_models_apart_but_not_forms_of_one(example_models: list[Path]) -> None:
    for path in example_models:
        model = onnx.load(path)
        before = model_fingerprint(model)
        prepare(model, ["make_initializers", "fold_transposes", "infer_shapes"])
        assert model_fingerprint(model) == before
        largest = max(model.graph.initializer, key=lambda tensor: len(tensor.raw_data))
        values = numpy_helper.to_array(largest).copy()
        values.reshape(-1)[0] += 1
        largest.CopyFrom(numpy_helper.from_array(values, largest.name))
        assert model_fingerprint(model) != before


def test_files_come_back_and_merge() -> None:
    model = network()
    whole, first, second = (calibrate(model, part) for part in (SAMPLES, SAMPLES[:1], SAMPLES[1:]))
    joined = first.merge(second)
    assert joined.ranges == whole.ranges
    assert set(joined.outside.values()) == {0.0}
    numbers = WeightNumbers(np.arange(-3, 3, dtype=np.int8).reshape(2, 3), np.array([0.1, 0.25], "f"), 0)
    assert numbers.floats()[1].tolist() == [0, 0.25, 0.5]
    kept = replace(joined, weights={'a "strange"], "name': numbers})
    assert Calibration.from_json(kept.to_json()) == kept
    with pytest.raises(CalibrationError, match="of another model"):
        first.merge(replace(second, fingerprint="0", prepared="1"))
    with pytest.raises(CalibrationError, match="by 'min-max' and by 'other'"):
        first.merge(replace(second, method="other"))


@pytest.mark.parametrize(
    ("change", "message"),
    [
        ({"format": "other"}, '"format" must be "onnxgraft-calibration"'),
        ({"version": 2}, "a calibration of version 2: this release reads 1"),
        ({"samples": "3"}, '"samples" must be a number'),
        ({"ranges": []}, '"ranges" must be an object'),
        ({"ranges": {"x": [1, 0]}}, "the range of tensor 'x' must be two numbers in order"),
        ({"ranges": {"x": [0, None]}}, "tensor 'x' must have finite numbers"),
        ({"outside": {"x": 2}}, "the share outside the range of tensor 'x' must be from 0 to 1"),
        ({"weights": {"w": {"int8": "!"}}}, "the numbers of weight 'w' are broken"),
    ],
)
def test_files_that_are_no_calibration(change: dict[str, Any], message: str) -> None:
    content = json.loads(Calibration({"x": Range(0, 1)}, "min-max", 1, "f").to_json())
    with pytest.raises(CalibrationError, match=message):
        Calibration.from_json(json.dumps({**content, **change}))


def test_command(tmp_path: Path, monkeypatch: pytest.MonkeyPatch, capsys: pytest.CaptureFixture[str]) -> None:
    monkeypatch.chdir(tmp_path)
    onnx.save(network(), "m.onnx")
    other = network()
    other.graph.initializer[0].CopyFrom(numpy_helper.from_array(TENSORS["w"] + 1, "w"))
    onnx.save(other, "other.onnx")
    onnx.save(model_of(["Nothing x -> y"], inputs={"x": [1, 3, 8, 8]}, outputs=["y"]), "strange.onnx")
    np.savez("d.npz", x=SAMPLES[0])
    np.savez("nan.npz", x=np.full_like(SAMPLES[0], np.nan))
    Path("empty").mkdir()
    assert main(["calibrate", "m.onnx", "--data", "d.npz", "-o", "r.json"]) == 0
    assert main(["calibrate", "m.onnx", "--data", "random:2", "-o", "r2.json", "--merge", "r.json"]) == 0
    assert "from 3 samples" in capsys.readouterr().out
    assert Calibration.from_json(Path("r2.json").read_text()).data == "d.npz, random:2"
    names = {path.name for path in tmp_path.iterdir()}
    bad = {
        ("m.onnx", "empty"): "the folder 'empty' has no data",
        ("m.onnx", "nan.npz"): "nan.npz, sample 1: the input 'x' has a value that is not finite",
        ("m.onnx", "d.npz", "--merge", "d.npz"): "'d.npz' is not a calibration",
        ("other.onnx", "d.npz", "--merge", "r.json"): "of another model",
        ("strange.onnx", "d.npz"): "the model: ",
        ("m.onnx", "d.npz", "--method", "percentile", "--percentile", "20"): "must be above 50",
        ("missing.onnx", "d.npz"): "cannot read 'missing.onnx'",
    }
    for (model, data, *further), message in bad.items():
        assert main(["calibrate", model, "--data", data, "-o", "new.json", *further]) == 1
        error = capsys.readouterr().err
        assert message in error
        assert error.count("\n") == 1
        assert {path.name for path in tmp_path.iterdir()} == names


def test_a_model_that_does_not_run_says_at_which_sample() -> None:
    model = model_of(["Add x c -> y"], inputs={"x": [None]}, outputs=["y"], tensors={"c": np.ones(3, "f")})
    with pytest.raises(EvaluationError, match=r"sample 2 of the given samples: .*cannot compute the model"):
        calibrate(model, [np.ones(3, "f"), np.ones(2, "f")])
