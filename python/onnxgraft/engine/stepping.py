"""Runs one transformation over one graph: all of it, or nothing.

If anything is raised on the way, the graph is restored to the start of the step, and the step records the error.
"""

from __future__ import annotations

import logging
from collections.abc import Callable, Sequence
from contextlib import AbstractContextManager, nullcontext
from dataclasses import dataclass, field
from time import perf_counter
from typing import TYPE_CHECKING, Any

import onnx

from onnxgraft.accounting import RunFacts
from onnxgraft.engine.all_or_nothing import all_or_nothing
from onnxgraft.engine.failure import TransformationError, transformation_error
from onnxgraft.engine.recorder import Details, Recorder
from onnxgraft.engine.selection import Candidate
from onnxgraft.engine.snapshot import Snapshot
from onnxgraft.following import DoneStep, Follower, Host, UndoStepError
from onnxgraft.report.records import PatternResult, Step

if TYPE_CHECKING:
    from onnxgraft.filling.filler import Filler

_log = logging.getLogger(__name__)


@dataclass
class Stepper:
    """Runs steps on one graph.

    Attributes:
        host: The graph and the facts about it.
        details: How much is recorded.
        followers: Called after each transformation, in order.
        facts: Facts for the account of the run, and the user's selection of operators.
        filler: Puts real numbers where a transformation draws them; None without a calibration.
        matters: Decides by its nodes whether an occurrence is recorded; None records all.
    """

    host: Host
    details: Details
    followers: Sequence[Follower] = ()
    filler: Filler | None = None
    facts: RunFacts = field(default_factory=RunFacts)
    matters: Callable[[Sequence[onnx.NodeProto]], bool] | None = None
    _snapshot: Snapshot | None = field(default=None, init=False)

    def run(self, candidate: Candidate, round_number: int) -> tuple[Step, TransformationError | None]:
        """One step; with the error if it failed and was undone.

        A MemoryError and anything that is not an `Exception` (an interruption) is raised again after the graph has been
        restored.
        """
        graph = self.host.graph
        count = len(graph.node)
        step = Step(
            candidate.name,
            candidate.row.cls.__name__,
            round_number,
            count,
            count,
            random=candidate.row.randomizes and self.filler is None,
        )
        snapshot = self._snapshot or Snapshot(graph)
        # In a later round the reasons for finding nothing are the same, and computing them takes as long as a search.
        recorder = Recorder(
            snapshot,
            self.details,
            misses=round_number == 1,
            splices=any(follower.wants(candidate.row) for follower in self.followers),
            store=self.host.store,
            matters=self.matters,
        )
        step.patterns = recorder.patterns
        error = None
        start = perf_counter()
        self._snapshot = None
        try:
            all_or_nothing(lambda: self._apply(step, candidate, recorder, snapshot), snapshot.put_back)
        except UndoStepError as reason:
            step.undone = str(reason)
        except BaseException as raised:
            if isinstance(raised, MemoryError) or not isinstance(raised, Exception):
                raise
            error = transformation_error(candidate, recorder, raised, graph)
            step.error = str(error)
            _log.info("%s; undone", error)
        self.facts.note(candidate.row, replaced=bool(step.replaced))
        step.seconds = perf_counter() - start
        step.nodes_after = len(graph.node)
        # Built-in classes touch only occurrences; another class may do anything in its `apply`.
        is_untouched = error is None and step.undone is None and candidate.row.is_own and not step.found
        self._snapshot = snapshot if is_untouched else None
        _log.info(
            "%s: found %d, replaced %d, refused %d in %.3f s", step.transformation, step.found, step.replaced,
            step.refused, step.seconds,
        )  # fmt: skip
        return step, error

    def _apply(self, step: Step, candidate: Candidate, recorder: Recorder, snapshot: Snapshot) -> None:
        transformation = candidate.make()
        choice = self.facts.choice
        choosing = nullcontext() if choice is None else choice.watch(candidate.row, transformation)
        with self._filling(transformation), choosing, recorder.watch(transformation):
            returned = transformation.apply(self.host.graph)
        self.facts.refused.update(recorder.refused)
        _add_unrecorded(step, returned)
        if step.replaced or not candidate.row.is_own:
            self._follow(step, candidate, recorder, snapshot)

    def _follow(self, step: Step, candidate: Candidate, recorder: Recorder, snapshot: Snapshot) -> None:
        done = DoneStep(self.host, candidate.row, recorder.splices, snapshot)
        for follower in self.followers:
            follower.follow(done)
        step.finished, step.remarks = done.finished, done.remarks

    def _filling(self, transformation: Any) -> AbstractContextManager[None]:
        return nullcontext() if self.filler is None else self.filler.watch(transformation, self.host.graph)


def _add_unrecorded(step: Step, returned: Any) -> None:
    """The count of `apply` beyond its passes: it did something by hand, or called another transformation."""
    beyond = returned - step.replaced if isinstance(returned, int) else 0
    if beyond > 0:
        step.patterns.append(PatternResult((), (), found=beyond, replaced=beyond))
