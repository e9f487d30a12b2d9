"""One piece of work in a process of its own, so that its memory can be measured.

python -m bench.accuracy.work TASK NETWORK    prints its result as one line of JSON
"""

from __future__ import annotations

import json
import sys
import time
import warnings
from collections.abc import Callable, Iterator
from functools import partial
from pathlib import Path
from typing import Any

import numpy as np
import onnx

import onnxgraft
from bench.accuracy import peer
from bench.accuracy.networks import BY_NAME, QUANTIZE, WHOLE, Network
from onnxgraft.calibration import read_calibration
from onnxgraft.evaluation import HARDWARE, ForwardRunner, lower
from onnxgraft.filling import Filling
from onnxgraft.samples import Sample, open_data

# The variants: transformations, how ranges are chosen, whether biases are corrected if that helps, the share of the
# multiply-adds that stays float.
OURS: dict[str, tuple[list[str], str, bool, float]] = {
    "extremes": (QUANTIZE, "min-max", False, 0.0),
    "plain": (QUANTIZE, "mse", False, 0.0),
    "recipe": (WHOLE, "mse", False, 0.0),
    "corrected": (WHOLE, "mse", True, 0.0),
    "float2": (WHOLE, "mse", True, 0.02),
    "float5": (WHOLE, "mse", True, 0.05),
}


def samples(network: Network, part: str) -> Iterator[Sample]:
    """The inputs of the network."""
    return iter(open_data(network.data(part), onnx.load(network.path)))


def forward(network: Network) -> dict[str, Any]:
    """The float model over the calibration data, with all of onnxruntime's optimizations."""
    model = onnx.load(network.path)
    feeds = list(samples(network, "calibration"))
    runner = ForwardRunner(model, evaluator="onnxruntime", optimize=True)
    runner.run(feeds[0])
    start, busy = time.perf_counter(), time.process_time()
    for sample in feeds:
        runner.run(sample)
    return {"seconds": time.perf_counter() - start, "busy": time.process_time() - busy, "samples": len(feeds)}


def calibrate(network: Network, method: str) -> dict[str, Any]:
    """Ranges by one of the methods."""
    feeds = list(samples(network, "calibration"))  # read before, as for the forward runs that it is compared with
    laps: list[float] = []
    found = onnxgraft.calibrate(
        network.path,
        feeds,
        method=method,
        evaluator="onnxruntime",
        progress=lambda *_: laps.append(time.process_time()),
    )
    _ranges(network, method).write_text(found.to_json())
    # The first sample waits for the session; the others show the time of a sample.
    return {"ranges": len(found.ranges), "busy": (laps[-1] - laps[0]) * len(laps) / max(len(laps) - 1, 1)}


def random_apply(network: Network) -> dict[str, Any]:
    """The same rewrite with random numbers, to compare times."""
    model = onnx.load(network.path)
    start = time.perf_counter()
    onnxgraft.rewrite(model, QUANTIZE, seed=0)
    return {"seconds": time.perf_counter() - start}


def ours(network: Network, variant: str) -> dict[str, Any]:
    """One of our quantized models, in standard operators."""
    transformations, method, corrects, share = OURS[variant]
    model = onnx.load(network.path)
    data = open_data(network.data("calibration"), model) if corrects or share else None
    correction = None if corrects else False
    filling = Filling(
        read_calibration(_ranges(network, method)), float_share=share, bias_correction=correction, data=data
    )
    start = time.perf_counter()
    report = onnxgraft.rewrite(model, transformations, calibration=filling)
    seconds = time.perf_counter() - start
    onnx.save(lower(model, HARDWARE), network.made(variant))
    replaced = {step.transformation: step.replaced for step in report.steps if step.replaced}
    left = [] if report.filled is None else [str(entry.name) for entry in report.filled.left_float]
    return {"replaced": replaced, "left": left, "seconds": seconds}


def decibels(network: Network, path: Path, *, optimize: bool = True) -> dict[str, float]:
    """Signal to noise, 10 log10 (sum of squares / sum of squared errors): of all test data, and the samples' mean."""
    names = list(network.outputs) or None
    runner = ForwardRunner(onnx.load(path), names, evaluator="onnxruntime", optimize=optimize)
    energies = []
    for wanted, sample in zip(_expected(network, names), samples(network, "test"), strict=True):
        found = runner.run(sample)
        errors = [wanted[name].astype(np.float64) - found[name] for name in found]
        signal = sum(float(np.square(values.astype(np.float64)).sum()) for values in wanted.values())
        energies.append((signal, sum(float(np.square(error).sum()) for error in errors)))
    signal, noise = np.array(energies).T
    # An error of nothing counts as the rounding of 32-bit floats.
    own = 10 * np.log10(signal / np.maximum(noise, signal * 1e-14))
    return {"decibels": float(10 * np.log10(signal.sum() / max(noise.sum(), 1e-30))), "typical": float(own.mean())}


def _expected(network: Network, names: list[str] | None) -> Iterator[dict[str, Any]]:
    """The outputs of the float model for the test data; computed once."""
    folder = network.data("answers")
    folder.mkdir(exist_ok=True)
    runner = None
    for number, sample in enumerate(samples(network, "test")):
        file = folder / f"{number:04}.npz"
        if not file.exists():
            runner = runner or ForwardRunner(onnx.load(network.path), names, evaluator="onnxruntime", optimize=True)
            np.savez(file, **runner.run(sample))  # type: ignore[arg-type]
        with np.load(file) as stored:
            yield dict(stored)


def _ranges(network: Network, method: str) -> Path:
    return network.made(method).with_suffix(".json")


def _peak() -> float:
    """The peak of this process in MB; `ru_maxrss` would be that of the process that started it, if that was larger."""
    lines = Path("/proc/self/status").read_text().splitlines()
    return next(int(line.split()[1]) for line in lines if line.startswith("VmHWM")) / 1024


def main() -> None:
    """Runs one task."""
    warnings.simplefilter("ignore")
    task, network = sys.argv[1], BY_NAME[sys.argv[2]]
    network.made("").parent.mkdir(parents=True, exist_ok=True)
    tasks: dict[str, Callable[[], dict[str, Any]]] = {
        "forward": lambda: forward(network),
        "calibrate": lambda: calibrate(network, "min-max"),
        "calibrate_mse": lambda: calibrate(network, "mse"),
        "random_apply": lambda: random_apply(network),
        **{variant: partial(ours, network, variant) for variant in OURS},
        **{variant: partial(peer.quantize, network, variant) for variant in peer.VARIANTS},
    }
    start = time.perf_counter()
    found = tasks[task]()
    found.setdefault("seconds", time.perf_counter() - start)
    found["megabytes"] = _peak()
    if network.made(task).exists():
        found |= decibels(network, network.made(task))
        if task in peer.VARIANTS:
            # Fused, it computes with kernels that saturate on processors without VNNI; as they stand, exactly.
            plain = decibels(network, network.made(task), optimize=False)
            found |= max(found, plain, key=lambda one: one["decibels"])
    print(json.dumps(found))


if __name__ == "__main__":
    main()
