"""Ratios to the floors F1 to F3, and of a merging pass to plain Python."""

from __future__ import annotations

from collections.abc import Iterator

import onnx
from floors import count_op_type, length_of_all_names
from onnx import numpy_helper

from bench import arithmetic, rewrites
from bench.equality import difference
from bench.figures import Figure
from bench.networks import resnet50
from bench.peers import plain_python
from bench.sizes import Sizes
from bench.timing import Work, compare
from bench.workloads import chain_model, copy_of


def measure(sizes: Sizes) -> Iterator[Figure]:
    """One figure after the other."""
    length = sizes.chains[1]
    yield no_occurrence(sizes)
    yield merging(length, sizes.rounds)
    chain, network = chain_model("conv", length).graph, resnet50(sizes.resnet_width).graph
    yield quantizing(f"{length:,} Conv", 1.25, chain, sizes.rounds)
    yield keeping(f"{length:,} Conv", chain, sizes.rounds)
    yield quantizing("ResNet-50", 1.1, network, 2 * sizes.rounds)
    yield keeping("ResNet-50", network, 2 * sizes.rounds)
    yield all_refused(length, sizes.rounds)


def no_occurrence(sizes: Sizes) -> Figure:
    """One pass over a graph without the operators of the pattern."""
    graph = chain_model("conv", sizes.without).graph
    return compare(
        f"pass without occurrence, {len(graph.node):,} nodes / F1",
        1.2,
        rewrites.on_copies(rewrites.without_operators, graph, 0),
        lambda: lambda: count_op_type(graph, "Shape"),
        2 * sizes.rounds,
    )


def merging(length: int, rounds: int) -> Figure:
    """`replace_quant_any` against plain Python, after both gave the same result."""
    graph = chain_model("merge", length).graph
    one, two = copy_of(graph), copy_of(graph)
    rewrites.merge(one)
    plain_python.replace_quant_any(two)
    if found := difference(one, two):
        raise RuntimeError(f"plain Python merged differently: {found}")
    return compare(
        f"replace_quant_any, {length:,} merges / plain Python",
        0.5,
        rewrites.on_copies(rewrites.merge, graph, length),
        rewrites.on_copies(plain_python.replace_quant_any, graph, length),
        rounds,
    )


def quantizing(name: str, aim: float, graph: onnx.GraphProto, rounds: int) -> Figure:
    """The cost of `quant_conv` over the calls that its arithmetic needs."""
    pairs = arithmetic.weights_and_biases(graph)
    return compare(
        f"quant_conv, {name} / F3",
        aim,
        rewrites.on_copies(rewrites.quant_conv, graph, len(pairs)),
        lambda: lambda: arithmetic.quantize(pairs),
        rounds,
    )


def keeping(name: str, graph: onnx.GraphProto, rounds: int) -> Figure:
    """The cost of only putting the tensors of F3 into the graph: F3 itself drops them and reuses their memory."""
    pairs = arithmetic.weights_and_biases(graph)

    def kept() -> Work:
        copy = copy_of(graph)
        return lambda: arithmetic.quantize(pairs, copy)

    return compare(
        f"F3 with its tensors kept, {name} / F3", None, kept, lambda: lambda: arithmetic.quantize(pairs), rounds
    )


def all_refused(length: int, rounds: int) -> Figure:
    """`quant_conv` if every Conv is INT8 already: each is found, checked for its precision and restored."""
    graph = chain_model("refused", length).graph
    pairs = arithmetic.weights_and_biases(graph)

    def floor() -> None:
        length_of_all_names(graph)
        for weight, _ in pairs:
            numpy_helper.to_array(weight)

    return compare(
        f"quant_conv, {length:,} refusals / F2 + one to_array each",
        3.0,
        rewrites.on_copies(rewrites.quant_conv, graph, 0),
        lambda: floor,
        rounds,
    )
