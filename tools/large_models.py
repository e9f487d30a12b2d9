"""Makes models whose weights exceed a memory limit, quantizes them on the command line and reports time and memory.

    python -m tools.large_models [--gigabytes 3 6] [--folder FOLDER]

The weights are sparse files of zeros: reading them costs as much as reading other weights, but they take no room on
disk. The command runs in a process of its own, and the system reports its largest resident memory at its end. It is
compared with that of an interpreter that only imports the same modules.
"""

from __future__ import annotations

import argparse
import json
import subprocess
import sys
import tempfile
import time
from collections.abc import Sequence
from dataclasses import dataclass
from pathlib import Path

import onnx
from onnx import TensorProto, helper

SIDE = 4096
LARGEST = SIDE * SIDE * 4
# The limit beyond interpreter and imports: this, and four times the largest weight.
ALLOWANCE = 300 << 20

_PEAK = "int(next(l for l in open('/proc/self/status') if l.startswith('VmHWM')).split()[1]) * 1024"
_COMMAND = f"""
import atexit, json, runpy, sys
results = sys.argv.pop(1)
def tell():
    with open(results, "w") as file:
        json.dump([{_PEAK}, [name for name in sys.modules if name != "__main__"]], file)
atexit.register(tell)
runpy.run_module("onnxgraft", run_name="__main__", alter_sys=True)
"""
_IMPORTS = f"""
import importlib, json, sys
with open(sys.argv[1]) as file:
    names = json.load(file)[1]
for name in names:
    try:
        importlib.import_module(name)
    except ImportError:
        pass
print({_PEAK})
"""


@dataclass(frozen=True)
class Measurement:
    """Sizes in bytes."""

    weights: int
    written: int
    seconds: float
    imports: int
    peak: int
    largest: int

    @property
    def bound(self) -> int:
        """The memory limit of the run."""
        return self.imports + ALLOWANCE + 4 * self.largest


def make_model(path: Path, layers: int, side: int = SIDE) -> int:
    """Writes a model of Conv and MatMul, each of side x side weights, one tensor in eight read by neither.

    Returns:
        The bytes of its weights.
    """
    size, end = side * side * 4, 0
    graph = onnx.GraphProto(name="large")
    for layer in range(layers):
        name, input_name, output_name = f"w{layer}", f"x{layer}", f"x{layer + 1}"
        kind = "Add" if layer % 8 == 7 else ("Conv", "MatMul")[layer % 2]
        dims = [side, side, 1, 1] if kind == "Conv" else [side, side]
        graph.node.append(helper.make_node(kind, [input_name, name], [output_name]))
        tensor = graph.initializer.add(name=name, data_type=TensorProto.FLOAT, dims=dims)
        tensor.data_location = TensorProto.EXTERNAL
        for key, value in (("location", f"{path.name}.data"), ("offset", str(end)), ("length", str(size))):
            tensor.external_data.add(key=key, value=value)
        end += size
    graph.input.append(helper.make_tensor_value_info("x0", TensorProto.FLOAT, [1, side, side, side]))
    graph.output.append(helper.make_tensor_value_info(f"x{layers}", TensorProto.FLOAT, None))
    with path.with_name(f"{path.name}.data").open("wb") as data:
        data.truncate(end)
    onnx.save_model(helper.make_model(graph, opset_imports=[helper.make_opsetid("", 17)], ir_version=8), path)
    return end


def measure(folder: Path, layers: int, side: int = SIDE, *options: str) -> Measurement:
    """Makes a model in `folder`, runs `onnxgraft apply` on it, and removes both.

    Args:
        folder: An empty place.
        layers: How many weights the model has.
        side: Each weight has side x side floats.
        options: More options of the command.
    """
    model, output, results = folder / "model.onnx", folder / "out.onnx", folder / "results.json"
    weights = make_model(model, layers, side)
    names = ["-t", "quant_conv", "-t", "quant_matmul", "--seed", "0", "--quiet"]
    start = time.perf_counter()
    command = [sys.executable, "-c", _COMMAND, str(results), "apply", str(model), *names, "-o", str(output), *options]
    subprocess.run(command, check=True)
    seconds = time.perf_counter() - start
    written = sum(file.stat().st_size for file in folder.glob("out.onnx*"))
    peak = int(json.loads(results.read_text())[0])
    imports = subprocess.run([sys.executable, "-c", _IMPORTS, str(results)], check=True, capture_output=True, text=True)
    for file in folder.iterdir():
        file.unlink()
    return Measurement(weights, written, seconds, int(imports.stdout), peak, side * side * 4)


def main(arguments: Sequence[str] | None = None) -> None:
    """Runs the command line; exit code 1 if a run exceeded its memory limit."""
    parser = argparse.ArgumentParser(prog="python -m tools.large_models")
    parser.add_argument("--gigabytes", type=float, nargs="+", default=[3.0, 6.0], help="of weights, for each model")
    parser.add_argument("--folder", type=Path, help="a folder for the models during the run")
    options = parser.parse_args(arguments)
    print("| Weights | Written | Time | Imports alone | Peak | Limit |\n|---|---|---|---|---|---|")
    results = []
    for gigabytes in options.gigabytes:
        with tempfile.TemporaryDirectory(prefix="onnxgraft-", dir=options.folder) as name:
            result = measure(Path(name), round(gigabytes * 1e9 / LARGEST))
        results.append(result)
        sizes = [f"{size / 1e6:.0f} MB" for size in (result.imports, result.peak, result.bound)]
        row = [f"{result.weights / 1e9:.1f} GB", f"{result.written / 1e9:.2f} GB", f"{result.seconds:.1f} s", *sizes]
        print("|", " | ".join(row), "|", flush=True)
    if any(result.peak > result.bound for result in results):
        sys.exit("too much memory")


if __name__ == "__main__":
    main()
