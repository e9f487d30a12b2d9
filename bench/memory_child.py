"""One run in a process of its own: prints how far the resident memory rose, at its peak, above an empty process.

python -m bench.memory_child needed MODEL...   what models take, with no work done
python -m bench.memory_child WORK MODEL        what a rewrite of onnx-graft takes, the floor "F3", or a peer's module
"""

from __future__ import annotations

import ctypes
import gc
import re
import sys
from collections.abc import Callable
from pathlib import Path

import onnx

from bench import arithmetic, peers, rewrites
from bench.workloads import chain_model

_PROCESS = Path("/proc/self")


def _status(field: str) -> int:
    found = re.search(rf"^{field}:\s+(\d+) kB", (_PROCESS / "status").read_text(), re.MULTILINE)
    if found is None:
        raise RuntimeError(f"{_PROCESS / 'status'} has no {field}")
    return int(found[1]) * 1024


def _settle() -> int:
    """Returns free memory to the system, so that it cannot hide later allocations; returns the resident memory."""
    gc.collect()
    ctypes.CDLL(None).malloc_trim(0)
    (_PROCESS / "clear_refs").write_text("5")  # resets the peak
    return _status("VmRSS")


def _work(name: str) -> Callable[[onnx.ModelProto], object]:
    if name == "needed":
        return lambda model: model
    if name == "F3":
        return lambda model: arithmetic.quantize(arithmetic.weights_and_biases(model.graph))
    if hasattr(rewrites, name):
        return lambda model: getattr(rewrites, name)(model.graph)
    peer = next(row for row in peers.QUANTIZING if row.module == name).peer()
    return lambda model: peer.store(_rewritten(peer, model))


def _rewritten(peer: peers.Peer, model: onnx.ModelProto) -> object:
    loaded = peer.load(model)
    peer.rewrite(loaded)
    return loaded


def main(name: str, *paths: str) -> None:
    work = _work(name)
    work(chain_model("merge" if name == "merge" else "conv", 1))  # modules that are loaded on first use
    empty = _settle()
    models = [onnx.load(path) for path in paths]
    _settle()
    result = work(models[0])
    print(_status("VmHWM") - empty)
    del result  # keeps the result alive until its peak was read


if __name__ == "__main__":
    main(*sys.argv[1:])
