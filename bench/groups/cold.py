"""The first rewrite of a process: parsed from bytes, rewritten once, with empty caches. Medians of processes."""

from __future__ import annotations

import subprocess
import sys
from collections.abc import Iterator
from pathlib import Path
from statistics import median
from tempfile import TemporaryDirectory

import onnx

from bench.figures import Figure
from bench.networks import resnet50
from bench.sizes import Sizes
from bench.workloads import chain_model


def measure(sizes: Sizes) -> Iterator[Figure]:
    """One figure after the other."""
    length = sizes.chains[1]
    conv, network = chain_model("conv", length), resnet50(sizes.resnet_width)
    yield _figure(f"quant_conv, {length:,} Conv / F3", conv, ("quant_conv", "F3"), 1.25, sizes)
    yield _figure("quant_conv, ResNet-50 / F3", network, ("quant_conv", "F3"), 1.1, sizes)
    merges = chain_model("merge", length)
    yield _figure(f"replace_quant_any, {length:,} merges / plain Python", merges, ("merge", "plain"), 0.5, sizes)


def _figure(name: str, model: onnx.ModelProto, works: tuple[str, str], aim: float, sizes: Sizes) -> Figure:
    print(f"measuring {name}, cold", file=sys.stderr)
    with TemporaryDirectory() as folder:
        path = Path(folder) / "model.onnx"
        path.write_bytes(model.SerializeToString())
        # Alternating, so that both run under the same conditions.
        runs = [[_seconds(work, path) for work in works] for _ in range(sizes.processes)]
    measured, against = (median(column) for column in zip(*runs, strict=True))
    return Figure(name, measured, against, aim, note="cold")


def _seconds(work: str, path: Path) -> float:
    command = [sys.executable, "-m", "bench.cold_child", work, str(path)]
    done = subprocess.run(command, capture_output=True, text=True)
    if done.returncode:
        raise RuntimeError(f"{' '.join(command[1:])}: {done.stderr.strip()}")
    return float(done.stdout)
