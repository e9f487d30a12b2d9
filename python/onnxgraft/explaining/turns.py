"""Transformations in sequence, each on the result of those before it, for callers that inspect the graph in between."""

from __future__ import annotations

import os
from collections.abc import Iterable, Sequence, Set

import onnx

from onnxgraft import finishing
from onnxgraft.accounting import Choice, RunFacts
from onnxgraft.engine.rehearsal import touches
from onnxgraft.engine.run_scope import run_scope
from onnxgraft.engine.selection import One, candidates
from onnxgraft.engine.stepping import Stepper
from onnxgraft.following import Host
from onnxgraft.report.records import Step


class Turns:
    """Runs transformations on a graph as `rewrite` does, one at a time. One that fails is undone.

    Args:
        given: The model, or its graph alone; it is rewritten.
        folder: The folder that the locations of external tensors start from; None is the current one.
        exclude: Operators that stay in float, as `rewrite` takes them.
        only: The operators that may be quantized; none means all.
    """

    def __init__(
        self,
        given: onnx.ModelProto | onnx.GraphProto,
        folder: str | os.PathLike[str] | None,
        exclude: Iterable[str] = (),
        only: Iterable[str] = (),
    ) -> None:
        model = given if isinstance(given, onnx.ModelProto) else None
        graph = given if isinstance(given, onnx.GraphProto) else given.graph
        host = Host(graph, model, folder)
        followers = finishing.followers(host, finish=True)
        self._folder = folder
        self._tensors: Set[str] | None = None
        facts = RunFacts(choice=Choice(graph, exclude, only))
        self._stepper = Stepper(host, "nodes", followers, facts=facts, matters=self._matters)

    def run(self, transformation: One, tensors: Set[str] | None = None) -> Step:
        """Runs the next one; records the occurrences that touch one of the tensors, or all if none are given."""
        (candidate,) = candidates(transformation, ())
        self._tensors = tensors
        with run_scope(0, self._folder):
            step, _ = self._stepper.run(candidate, 1)
        return step

    def _matters(self, nodes: Sequence[onnx.NodeProto]) -> bool:
        return self._tensors is None or touches(nodes, self._tensors)
