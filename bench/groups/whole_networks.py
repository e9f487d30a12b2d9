"""All transformations, one after the other, on whole networks as exporters write them."""

from __future__ import annotations

from collections.abc import Iterator
from pathlib import Path

import onnx
from floors import length_of_all_names

from bench import arithmetic
from bench.figures import Figure
from bench.networks import bert
from bench.sizes import Sizes
from bench.timing import Work, compare
from bench.workloads import model_copy
from onnxgraft.catalogue import rows
from onnxgraft.preparation import prepare

_YOLO = Path(__file__).parents[2] / "examples/models/yolov5r2_even_c17.onnx"
_FIRST = ("quant_conv", "quant_matmul", "quant_gemm")  # the others look for quantized operators


def measure(sizes: Sizes) -> Iterator[Figure]:
    """One figure per network."""
    yield _all_on("YOLOv5", onnx.load(_YOLO), sizes.rounds)
    yield _all_on("BERT", bert(sizes.bert_layers), sizes.rounds)


def _all_on(name: str, model: onnx.ModelProto, rounds: int) -> Figure:
    """Compared with the unavoidable work: a walk over all names per pattern, and the arithmetic of each Conv."""
    prepare(model)
    order = [*_FIRST, *(found for found in rows() if found not in _FIRST)]
    transformations = [rows()[found] for found in order]
    patterns = sum(len(transformation.pairs) for transformation in transformations)
    rewritten = model_copy(model)
    counts = {transformation.name: transformation.apply(rewritten.graph) for transformation in transformations}
    pairs = arithmetic.weights_and_biases(model.graph)

    def run() -> Work:
        graph = model_copy(model).graph
        return lambda: [transformation.apply(graph) for transformation in transformations]

    def floor() -> None:
        for _ in range(patterns):
            length_of_all_names(model.graph)
        arithmetic.quantize(pairs)

    fired = sum(1 for count in counts.values() if count)
    note = f"{len(model.graph.node)} nodes, {sum(counts.values())} replacements by {fired} transformations"
    figure = compare(
        f"all {len(transformations)} on {name} / F2 per pattern + F3", None, run, lambda: floor, 3 * rounds
    )
    return Figure(figure.name, figure.measured, figure.against, note=note)
