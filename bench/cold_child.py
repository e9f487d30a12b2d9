"""One rewrite in a process of its own: prints the seconds of processor time that it takes after the model was parsed.

python -m bench.cold_child WORK MODEL    a rewrite of bench.rewrites, "F3" or "plain"
"""

from __future__ import annotations

import sys
import time
from collections.abc import Callable
from pathlib import Path

import onnx

from bench import arithmetic, rewrites
from bench.peers import plain_python


def _work(name: str, graph: onnx.GraphProto) -> Callable[[], object]:
    if name == "F3":
        pairs = arithmetic.weights_and_biases(graph)
        return lambda: arithmetic.quantize(pairs)
    if name == "plain":
        return lambda: plain_python.replace_quant_any(graph)
    return lambda: getattr(rewrites, name)(graph)


def main(name: str, path: str) -> None:
    model = onnx.ModelProto.FromString(Path(path).read_bytes())
    work = _work(name, model.graph)
    begin = time.process_time()
    work()
    print(time.process_time() - begin)


if __name__ == "__main__":
    main(*sys.argv[1:])
