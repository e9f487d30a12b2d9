"""Runs one transformation to learn the outcome for a few nodes; the rewritten graph is thrown away.

The search and the splicing are those of a run. A built-in callback is called only for the occurrences that touch the
tensors in question and counts as accepting the others. This saves most of the time: it would compute weights for them.
"""

from __future__ import annotations

import os
from collections.abc import Iterable, Set

import onnx

from onnxgraft.engine.failure import transformation_error
from onnxgraft.engine.recorder import Recorder
from onnxgraft.engine.run_scope import run_scope
from onnxgraft.engine.selection import Candidate
from onnxgraft.report.records import Step


def rehearse(
    graph: onnx.GraphProto,
    candidate: Candidate,
    tensors: Set[str],
    folder: str | os.PathLike[str] | None = None,
) -> Step:
    """Runs a transformation.

    Args:
        graph: A graph of the caller's own, which is useless afterwards.
        candidate: What to run.
        tensors: The names of the tensors in question: the inputs and outputs of the nodes.
        folder: The folder that the locations of external tensors start from; None is the current one.

    Returns:
        The occurrences with a node that reads or writes one of the tensors. The numbers of the step count only these.
    """
    count = len(graph.node)
    step = Step(candidate.name, candidate.row.cls.__name__, 1, count, count)
    # A user's callback may keep a state, or edit anything: then each call matters.
    recorder = Recorder(
        None, "nodes", misses=False, matters=lambda nodes: touches(nodes, tensors), calls_all=not candidate.row.is_own
    )
    step.patterns = recorder.patterns
    transformation = candidate.make()
    with run_scope(0, folder):
        try:
            with recorder.watch(transformation):
                transformation.apply(graph)
        except MemoryError:
            raise
        except Exception as raised:
            step.error = str(transformation_error(candidate, recorder, raised, graph))
    return step


def touches(nodes: Iterable[onnx.NodeProto], tensors: Set[str]) -> bool:
    """Whether one of the nodes reads or writes one of the tensors."""
    for node in nodes:  # noqa: SIM110  # for each occurrence of a run: a generator takes twice the time
        if not (tensors.isdisjoint(node.output[:]) and tensors.isdisjoint(node.input[:])):
            return True
    return False
