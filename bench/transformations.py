"""Ratios of all transformations: growth on chains of their own occurrences, looks over all nodes, finding nothing."""

from __future__ import annotations

import sys
from collections.abc import Callable, Iterator

import onnx
from floors import count_op_type

from bench.occurrences import chain
from bench.timing import Ratio, Work, compare
from bench.workloads import copy_of
from onnxgraft.catalogue import Transformation, rows
from onnxgraft.quant import AbstractPullUpTesselQuantTransformation

_SHORT, _FACTOR = 1_000, 10
_GROWTH = 12.0
# Initializers are taken out of the list one by one, each of which moves those behind it.
_GROWTH_OF = {"update_tesselquant": 20.0}
# V10 looks at all nodes twice: who writes the inputs, then, as all of the family, who reads the output.
_WALKS_OF = {"replace_concat_quant_v10": 2}
_LOOKS = 400
_LOOKS_OF = {"replace_concat_quant_v10": 100}  # its occurrences bring ten more nodes each


def _apply(transformation: Transformation, graph: onnx.GraphProto, length: int) -> Callable[[], Work]:
    def prepare() -> Work:
        copy = copy_of(graph)

        def work() -> None:
            replaced = transformation.apply(copy)
            if replaced != length:
                raise AssertionError(f"{transformation.name} replaced {replaced} of {length} occurrences")

        return work

    return prepare


def growth(transformation: Transformation) -> Ratio:
    """Ten times as many occurrences."""
    short, long = _SHORT, _SHORT * _FACTOR
    return compare(
        f"{transformation.name}: {long:,} / {short:,}",
        _GROWTH_OF.get(transformation.name, _GROWTH),
        _apply(transformation, chain(transformation, long), long),
        _apply(transformation, chain(transformation, short), short),
        rounds=5,
    )


def look(transformation: Transformation, between: str = "Identity") -> Ratio:
    """One look over all nodes per occurrence, where the callback has to take one; `between` the operator in between."""
    length = _LOOKS_OF.get(transformation.name, _LOOKS)
    graph = chain(transformation, length, between)
    rewritten = copy_of(graph)
    transformation.apply(rewritten)

    def walks() -> None:
        for _ in range(length * _WALKS_OF.get(transformation.name, 1)):
            count_op_type(rewritten, "Conv")

    return compare(
        f"{transformation.name}: looks / walks, {between} between",
        1.5,
        _apply(transformation, graph, length),
        lambda: walks,
        rounds=3,
    )


def finding_nothing(nodes: int = 30_000) -> Ratio:
    """All transformations over a graph without any operator of their patterns."""
    graph = onnx.GraphProto()
    for number in range(nodes):
        graph.node.add(op_type="Tanh", name=f"node_{number}", input=[f"t{number}"], output=[f"t{number + 1}"])

    def work() -> None:
        for transformation in rows().values():
            if transformation.apply(graph):
                raise AssertionError(f"{transformation.name} found something")

    return compare(
        f"all {len(rows())} without their operators / bare walk",
        65.0,
        lambda: work,
        lambda: lambda: count_op_type(graph, "Conv"),
        rounds=7,
    )


def transformation_ratios() -> Iterator[Ratio]:
    """Measures one after the other."""
    yield finding_nothing()
    for transformation in rows().values():
        print(f"measuring {transformation.name}", file=sys.stderr)
        looks = issubclass(transformation.cls, AbstractPullUpTesselQuantTransformation)
        yield look(transformation) if looks else growth(transformation)
    yield look(rows()["replace_quant_v2"], "Conv")
