"""Ctrl-C at awkward moments: in the search, between callbacks, and while a step is being undone."""

import gc
import itertools
import signal
import sys
from collections.abc import Callable, Iterator
from contextlib import contextmanager
from types import FrameType
from typing import Any

import pytest
from onnx import GraphProto

import onnxgraft
from helpers.checks import dangling
from helpers.small_graphs import conv_relus, graph_of, model_of, ones
from onnxgraft import quant
from onnxgraft.abstract_transformation import AbstractTransformation
from onnxgraft.engine.all_or_nothing import all_or_nothing


@pytest.fixture(autouse=True)
def ctrl_c_interrupts() -> Iterator[None]:
    """A shell starts background jobs with SIGINT ignored; the tests run in those as well."""
    before = signal.signal(signal.SIGINT, signal.default_int_handler)
    yield
    signal.signal(signal.SIGINT, before)


@contextmanager
def interrupted_after(seconds: float) -> Iterator[None]:
    """In this process's own time, so that it comes at the same place on a busy machine."""
    before = signal.signal(signal.SIGVTALRM, signal.default_int_handler)
    # An interruption inside a callback of the garbage collector, such as hypothesis has one, would be lost.
    collecting, gc.callbacks[:] = gc.callbacks[:], []
    signal.setitimer(signal.ITIMER_VIRTUAL, seconds)
    try:
        with pytest.raises(KeyboardInterrupt):
            yield
    finally:
        signal.setitimer(signal.ITIMER_VIRTUAL, 0)
        signal.signal(signal.SIGVTALRM, before)
        gc.callbacks[:] = collecting


def test_a_search_ends_when_it_is_interrupted() -> None:
    """Otherwise all 64,000 combinations would be spliced before the interruption is noticed."""
    graph = graph_of([f"{op} {op}{at} -> {op.lower()}{at}" for at in range(40) for op in "ABC"])
    before = graph.SerializeToString()
    rule = (["A:0->1", "B:2->3", "C:4->5"], ["#0", "#1", "#2", "Clip:1->9"])
    with interrupted_after(0.01):
        AbstractTransformation()._replace_all_isomorphic_sub_graphs(graph, *rule)
    assert graph.SerializeToString() == before


def test_a_round_ends_when_it_is_interrupted() -> None:
    """Built-in callbacks never enter Python, where the interpreter would notice the interruption."""
    graph = conv_relus(3000)
    with interrupted_after(0.02):
        quant.QuantConvTransformation().apply(graph)
    assert len(dangling(graph)) <= 2, "more than the callback was to make that was interrupted"
    assert sum(node.op_type == "TesselDequant" for node in graph.node) < 3000


def test_a_step_is_put_back_whatever_comes() -> None:
    class Breaks(AbstractTransformation):
        def apply(self, graph: GraphProto, debug: bool = False) -> int:
            del graph.node[0], graph.initializer[:]
            signal.raise_signal(signal.SIGINT)
            return 0

    model = model_of(["Relu x -> a", "Conv a w -> y"], inputs=["x"], outputs=["y"], tensors={"w": ones(1, 1, 1, 1)})
    before = model.SerializeToString(deterministic=True)
    for second in itertools.count(1):
        reached = interrupted_at_line(
            second, "snapshot.py", lambda: onnxgraft.rewrite(model, [Breaks()], prepare=False)
        )
        assert model.SerializeToString(deterministic=True) == before
        if not reached:
            break
    assert second > 20


def test_a_second_interruption_waits_until_all_is_undone() -> None:
    """The first error comes from the run, the interruption at each line, one after the other."""
    handler = signal.getsignal(signal.SIGINT)
    begun: list[int] = []

    def run() -> None:
        begun.append(1)
        raise ValueError

    for line in itertools.count(1):
        reached = interrupted_at_line(line, "all_or_nothing.py", lambda: all_or_nothing(run, begun.clear))
        assert not begun
        with pytest.raises(KeyboardInterrupt):
            signal.raise_signal(signal.SIGINT)
        signal.signal(signal.SIGINT, handler)
        if not reached:
            break
    assert line > 20


def interrupted_at_line(line: int, file: str, run: Callable[[], Any]) -> bool:
    """Runs it with a Ctrl-C at the n-th line of that file; returns whether that line was reached."""
    lines = itertools.count(1)
    reached = False

    def trace(frame: FrameType, event: str, _: Any) -> Any:
        nonlocal reached
        if event == "line" and frame.f_code.co_filename.endswith(file) and next(lines) == line:
            reached = True
            signal.raise_signal(signal.SIGINT)
        return trace

    tracer = sys.gettrace()
    sys.settrace(trace)
    try:
        run()
    except (KeyboardInterrupt, ValueError):
        pass
    finally:
        sys.settrace(tracer)
    return reached
