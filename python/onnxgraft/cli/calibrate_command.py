"""`onnxgraft calibrate`: the ranges that tensors of a float model take on a user's data."""

from __future__ import annotations

import argparse
import time

from onnxgraft.calibration import Calibration, calibrate, merged, read_calibration
from onnxgraft.cli import consoles
from onnxgraft.cli.data_options import images_of
from onnxgraft.cli.text_output import TextOutput
from onnxgraft.io import model_files


def run(options: argparse.Namespace) -> int:
    """Collects ranges and writes them."""
    with TextOutput(options.output, overwrite=options.force) as output:
        earlier = [read_calibration(path) for path in options.merge]
        start = time.perf_counter()
        result = _collect(options)
        seconds = time.perf_counter() - start
        result = merged([*earlier, result])
        output.write(result.to_json())
    if options.from_qdq is None:
        source = f"by {result.method} from {result.samples} samples ({result.data})"
    else:
        source = f"and the numbers of {len(result.weights)} weights from '{options.from_qdq}'"
    consoles.tell(f"{len(result.ranges)} ranges {source}, {seconds:.1f} s")
    consoles.say(f"wrote {options.output}")
    return 0


def _collect(options: argparse.Namespace) -> Calibration:
    if options.from_qdq is not None:
        from onnxgraft.quantized_models import calibration_for  # rarely wanted  # noqa: PLC0415

        models = model_files.load(options.model), model_files.load(options.from_qdq)
        return calibration_for(*models, folder=options.model.parent, quantized_folder=options.from_qdq.parent)
    with consoles.countdown("calibrating") as progress:
        return calibrate(
            options.model,
            options.data,
            method=options.method,
            percentile=options.percentile,
            images=images_of(options),
            sizes=dict(options.size),
            seed=options.seed or 0,
            prepare=options.prepare,
            evaluator=options.evaluator,
            all_tensors=options.all_tensors,
            progress=progress,
        )
