"""Every use of the graph fails once: the error comes out, and the graph is what it was or what was accepted."""

from __future__ import annotations

from collections.abc import Callable
from typing import Any

import pytest
from onnx import GraphProto, TensorProto, helper

from helpers.failing import FaultError, Uses
from helpers.small_graphs import graph_of
from onnxgraft.abstract_transformation import AbstractTransformation

PATTERN = ["Conv:0,1i->2", "Relu:2->3"]
REPLACEMENT = ["#1:0->100", "#0:100,101i->3"]


class Swap(AbstractTransformation):
    def __init__(self, verdict: Callable[[int], bool]) -> None:
        self.verdict = verdict
        self.calls = 0

    def _on_replace_subgraph(self, *_: Any, **__: Any) -> bool:
        self.calls += 1
        return self.verdict(self.calls)


def conv_relus(count: int = 3) -> GraphProto:
    lines = [line for i in range(count) for line in (f"Conv x{i} w{i} -> y{i}", f"Relu y{i} -> x{i + 1}")]
    graph = graph_of(lines, inputs=["x0"], outputs=[f"x{count}"])
    for i in range(count):
        graph.initializer.append(helper.make_tensor(f"w{i}", TensorProto.FLOAT, [1, 1, 1, 1], [1.0]))
        graph.value_info.append(helper.make_tensor_value_info(f"y{i}", TensorProto.FLOAT, None))
    return graph


def is_sound(graph: GraphProto) -> bool:
    """Every tensor has one writer, in front of its readers; new initializers are the callback's to make."""
    known = {value.name for value in graph.input} | {tensor.name for tensor in graph.initializer}
    for node in graph.node:
        if any(name not in known and not name.endswith("_new") for name in node.input):
            return False
        if known & set(node.output):
            return False
        known.update(node.output)
    return True


@pytest.mark.parametrize("verdict", [lambda _: True, lambda _: False, lambda call: call % 2 == 0])
def test_a_fault_at_every_use(verdict: Callable[[int], bool]) -> None:
    before = conv_relus().SerializeToString(deterministic=True)
    faults = 0
    for fail_at in range(1, 2000):
        graph = GraphProto.FromString(before)
        swap, uses = Swap(verdict), Uses(fail_at)
        try:
            swap._replace_all_isomorphic_sub_graphs(uses.wrap(graph), PATTERN, REPLACEMENT)
        except FaultError:
            faults += 1
        else:
            break
        finally:
            uses.left = 0
        assert is_sound(graph), f"use {fail_at}"
        if swap.calls == 0:
            assert graph.SerializeToString(deterministic=True) == before, f"use {fail_at}"
        if swap.calls == 3:  # all were asked: what was accepted stays, what was refused went back
            accepted = sum(verdict(call) for call in (1, 2, 3))
            assert sum(node.input[0].endswith("_Relu") for node in graph.node) in (accepted, 3), f"use {fail_at}"
    assert faults > 100
