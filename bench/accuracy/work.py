"""One piece of work in a process of its own, so that its memory can be measured.

python -m bench.accuracy.work TASK NETWORK    prints what it found as one line of JSON
"""

from __future__ import annotations

import itertools
import json
import resource
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

# What is made: transformations, whether biases are corrected where it helps, the share of the multiply-adds in float.
OURS: dict[str, tuple[list[str], bool, float]] = {
    "plain": (QUANTIZE, False, 0.0),
    "recipe": (WHOLE, False, 0.0),
    "corrected": (QUANTIZE, True, 0.0),
    "float2": (WHOLE, False, 0.02),
    "float5": (WHOLE, False, 0.05),
}
# So many samples are compared.
_COMPARED = {"det": 4, "rec": 48, "cls": 48, "vad": 200}


def samples(network: Network, part: str) -> Iterator[Sample]:
    """What the network is fed with."""
    return iter(open_data(network.data(part), onnx.load(network.path)))


def forward(network: Network) -> dict[str, Any]:
    """The float model over the calibration data, with all of onnxruntime's optimizations."""
    model = onnx.load(network.path)
    feeds = list(samples(network, "calibration"))
    runner = ForwardRunner(model, evaluator="onnxruntime", optimize=True)
    runner.run(feeds[0])
    start = time.perf_counter()
    for sample in feeds:
        runner.run(sample)
    return {"seconds": time.perf_counter() - start, "samples": len(feeds)}


def calibrate(network: Network) -> dict[str, Any]:
    """Ranges by their extremes."""
    folder = network.data("calibration")
    laps: list[float] = []
    found = onnxgraft.calibrate(
        network.path, folder, evaluator="onnxruntime", progress=lambda *_: laps.append(time.perf_counter())
    )
    _ranges(network).write_text(found.to_json())
    # The first sample waits for the session; what a sample takes, the others tell.
    return {"ranges": len(found.ranges), "collecting": (laps[-1] - laps[0]) * len(laps) / max(len(laps) - 1, 1)}


def random_apply(network: Network) -> dict[str, Any]:
    """The same rewrite with random numbers, to compare times."""
    model = onnx.load(network.path)
    start = time.perf_counter()
    onnxgraft.rewrite(model, QUANTIZE, seed=0)
    return {"seconds": time.perf_counter() - start}


def ours(network: Network, variant: str) -> dict[str, Any]:
    """One of our quantized models, in standard operators."""
    transformations, corrects, share = OURS[variant]
    model = onnx.load(network.path)
    data = open_data(network.data("calibration"), model) if corrects or share else None
    correction = None if corrects else False
    filling = Filling(read_calibration(_ranges(network)), float_share=share, bias_correction=correction, data=data)
    start = time.perf_counter()
    report = onnxgraft.rewrite(model, transformations, calibration=filling)
    seconds = time.perf_counter() - start
    onnx.save(lower(model, HARDWARE), network.made(variant))
    replaced = {step.transformation: step.replaced for step in report.steps if step.replaced}
    left = [] if report.filled is None else [str(entry.name) for entry in report.filled.left_float]
    return {"replaced": replaced, "left": left, "seconds": seconds}


def decibels(network: Network, path: Path) -> float:
    """The ratio of signal to noise over all test data: 10 log10 (sum of squares / sum of squared errors)."""
    names = list(network.outputs) or None
    float_runner = ForwardRunner(onnx.load(network.path), names, evaluator="onnxruntime")
    runner = ForwardRunner(onnx.load(path), names, evaluator="onnxruntime")
    signal = noise = 0.0
    for sample in itertools.islice(samples(network, "test"), _COMPARED[network.name]):
        for wanted, found in zip(float_runner.run(sample).values(), runner.run(sample).values(), strict=True):
            signal += float(np.square(wanted.astype(np.float64)).sum())
            noise += float(np.square(wanted.astype(np.float64) - found).sum())
    return float(10 * np.log10(signal / noise)) if noise else float("inf")


def _ranges(network: Network) -> Path:
    return network.made("float").with_suffix(".json")


def main() -> None:
    """Runs one task."""
    warnings.simplefilter("ignore")
    task, network = sys.argv[1], BY_NAME[sys.argv[2]]
    network.made("").parent.mkdir(parents=True, exist_ok=True)
    tasks: dict[str, Callable[[], dict[str, Any]]] = {
        "forward": lambda: forward(network),
        "calibrate": lambda: calibrate(network),
        "random_apply": lambda: random_apply(network),
        **{variant: partial(ours, network, variant) for variant in OURS},
        **{variant: partial(peer.quantize, network, variant) for variant in peer.VARIANTS},
    }
    start = time.perf_counter()
    found = tasks[task]()
    found.setdefault("seconds", time.perf_counter() - start)
    found["megabytes"] = resource.getrusage(resource.RUSAGE_SELF).ru_maxrss / 1024
    if network.made(task).exists():
        found["decibels"] = decibels(network, network.made(task))
    print(json.dumps(found))


if __name__ == "__main__":
    main()
