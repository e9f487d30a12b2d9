"""Ratios of the pass itself and of quantizing."""

from __future__ import annotations

from collections.abc import Callable, Iterator

import onnx
from floors import count_op_type

from bench import arithmetic
from bench.timing import Ratio, Work, compare
from bench.workloads import conv_chain, copy_of
from onnxgraft import quant


def missing_operators(nodes: int = 50_000) -> Ratio:
    """One pass over a graph without its operators."""
    graph = conv_chain(nodes)
    passes = quant.SimplifyShapeV2Transformation()
    return compare(
        "pass without its operators / bare walk",
        1.3,
        lambda: lambda: passes.apply(graph),
        lambda: lambda: count_op_type(graph, "Shape"),
        rounds=15,
    )


def _quantizing(graph: onnx.GraphProto) -> Callable[[], Work]:
    def prepare() -> Work:
        copy = copy_of(graph)
        return lambda: quant.QuantConvTransformation().apply(copy)

    return prepare


def growth(short: int = 2_000, factor: int = 10) -> Ratio:
    """How the time of `quant_conv` grows with the graph."""
    return compare(
        f"quant_conv on {short * factor:,} / {short:,} Conv",
        1.2 * factor,
        _quantizing(conv_chain(short * factor)),
        _quantizing(conv_chain(short)),
        rounds=5,
    )


def overhead(shape: tuple[int, int, int, int], length: int) -> Ratio:
    """What `quant_conv` adds to the calls that its arithmetic needs."""
    graph = conv_chain(length, shape)
    pairs = arithmetic.weights_and_biases(graph)
    size = "x".join(map(str, shape))
    return compare(
        f"quant_conv / its arithmetic, weights {size}",
        1.6,
        _quantizing(graph),
        lambda: lambda: arithmetic.quantize(pairs),
        rounds=7,
    )


def pass_ratios() -> Iterator[Ratio]:
    """Measures one after the other."""
    yield missing_operators()
    yield growth()
    yield overhead((1, 1, 1, 1), 2_000)
    yield overhead((64, 64, 3, 3), 100)
