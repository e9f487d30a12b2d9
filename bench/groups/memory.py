"""Peak memory, each run in a process of its own.

Extra memory is the difference between the peak and the model with its new tensors and nodes, as they are in memory.
Protobuf keeps the memory of deleted parts of a message as long as the message lives, for every tool alike: the old
weights are part of the model here, before and after. F3 holds one new weight at a time in addition to the bytes of the
old one.
"""

from __future__ import annotations

import json
import subprocess
import sys
from collections.abc import Iterator
from importlib.util import find_spec
from pathlib import Path
from tempfile import TemporaryDirectory

import onnx

from bench import rewrites
from bench.figures import Figure
from bench.networks import resnet50
from bench.peers import QUANTIZING
from bench.sizes import Sizes
from bench.workloads import chain_model, copy_of

_AIM = 0.1
_MEGABYTE = 1e6


def measure(sizes: Sizes) -> Iterator[Figure]:
    """One figure per tool and work; the aim is for a network, whose memory is its tensors."""
    length = sizes.chains[1]
    peers = [row.module for row in QUANTIZING if not row.distribution or _installed(row.distribution)]
    network = resnet50(sizes.resnet_width)
    yield from _figures("ResNet-50", network, "quant_conv", {"quant_conv": _AIM, "F3": None} | dict.fromkeys(peers))
    yield from _figures(f"{length:,} Conv", chain_model("conv", length), "quant_conv", {"quant_conv": None})
    yield from _figures(f"{length:,} merges", chain_model("merge", length), "merge", {"merge": None})


def _installed(distribution: str) -> bool:
    return find_spec(distribution.replace("-", "_")) is not None


def _figures(name: str, model: onnx.ModelProto, rewrite: str, aims: dict[str, float | None]) -> Iterator[Figure]:
    print(f"measuring memory on {name}", file=sys.stderr)
    with TemporaryDirectory() as folder:
        source, new = Path(folder) / "model.onnx", Path(folder) / "new.onnx"
        onnx.save(model, source)
        onnx.save(_additions(model, rewrite), new)
        needed = _peak("needed", source, new)
        for work, aim in aims.items():
            # The floor drops its results, so only one new tensor at a time is part of its peak.
            base = _peak("needed", source) if work == "F3" else needed
            extra = max(0, _peak(work, source) - base)
            tool = next((row.name for row in QUANTIZING if row.module == work), "")
            title = f"{tool or work}, {name}: extra memory"
            yield Figure(title, extra / _MEGABYTE, needed / _MEGABYTE, aim, "MB")


def _additions(model: onnx.ModelProto, rewrite: str) -> onnx.ModelProto:
    """A model of only the additions of the rewrite: its tensors and nodes, which have names of their own."""
    graph = copy_of(model.graph)
    getattr(rewrites, rewrite)(graph)
    old = {element.name for elements in (model.graph.initializer, model.graph.node) for element in elements}
    made = onnx.ModelProto()
    made.graph.initializer.extend(tensor for tensor in graph.initializer if tensor.name not in old)
    made.graph.node.extend(node for node in graph.node if node.name not in old)
    return made


def _peak(work: str, *paths: Path) -> int:
    """Bytes above an empty process."""
    command = [sys.executable, "-m", "bench.memory_child", work, *map(str, paths)]
    done = subprocess.run(command, capture_output=True, text=True)
    if done.returncode:
        raise RuntimeError(f"{' '.join(command[1:])}: {done.stderr.strip()}")
    return int(json.loads(done.stdout))
