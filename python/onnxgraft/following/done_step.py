"""A step whose transformation has run, and the followers that complete it."""

from __future__ import annotations

import os
from collections.abc import Mapping, Sequence
from dataclasses import dataclass, field
from functools import cached_property
from typing import Protocol

import onnx
from onnx.external_data_helper import uses_external_data

from onnxgraft.abstract_transformation import AbstractTransformation
from onnxgraft.catalogue import Transformation, rows
from onnxgraft.errors import HostError
from onnxgraft.io.weight_store import WeightStore
from onnxgraft.preparation.workpiece import Workpiece
from onnxgraft.tensor_types import Inferred, TensorTypes


class UndoStepError(HostError):
    """Raised by a follower that cannot do its part: the report gives the reason, the step is undone."""


@dataclass(frozen=True)
class Splice:
    """One occurrence that a transformation accepted.

    Attributes:
        pattern: The strings of the pattern.
        replacement: The strings of the replacement.
        links: Id in either list -> tensor. Find nodes by tensors: positions change with every splice.
        matched: Copies of the matched nodes before the step, in the order of the pattern.
        graph: The graph with the occurrence: the model's own, or a nested body.
    """

    pattern: tuple[str, ...]
    replacement: tuple[str, ...]
    links: Mapping[str, str]
    matched: tuple[onnx.NodeProto, ...]
    graph: onnx.GraphProto


@dataclass(frozen=True)
class Host:
    """Facts that stay the same from step to step.

    Attributes:
        graph: The graph that the run works on.
        model: Its model; None if the caller gave a graph alone.
        folder: The folder that the locations of external tensors start from.
        store: Where to put new weights, if not into the graph.
    """

    graph: onnx.GraphProto
    model: onnx.ModelProto | None = None
    folder: str | os.PathLike[str] | None = None
    store: WeightStore | None = None
    _inferred: Inferred = field(default_factory=dict, init=False, repr=False, compare=False)

    def workpiece(self) -> Workpiece:
        """Look-ups and edits: constants and their values, fresh names, new initializers through the weight store."""
        return Workpiece(self.graph if self.model is None else self.model, self.folder, self.store)

    def tensor_types(self) -> TensorTypes:
        """Element types and shapes of the graph as it is now, including tensors without a declaration."""
        return TensorTypes(self.graph, self.opsets, self._at_hand, self._inferred)

    def _at_hand(self, tensor: onnx.TensorProto) -> onnx.TensorProto | None:
        if not uses_external_data(tensor):
            return tensor
        values = self.workpiece().values(tensor)
        return None if values is None else onnx.numpy_helper.from_array(values, tensor.name)

    @property
    def opsets(self) -> dict[str, int]:
        """Operator set version by domain, "" for the standard one; empty if only a graph is known."""
        entries = self.model.opset_import if self.model is not None else ()
        return {"" if entry.domain == "ai.onnx" else entry.domain: entry.version for entry in entries}


class Before(Protocol):
    """The graph as a step found it."""

    def initializer(self, name: str) -> onnx.TensorProto | None:
        """The initializer of that name, even if it has been removed since."""
        ...


@dataclass
class DoneStep:
    """A step whose transformation has run; the graph is complete and in topological order.

    Attributes:
        host: The graph and the facts about it.
        transformation: The transformation that ran.
        splices: Its replacements, in order; empty if no follower asked for them (`Follower.wants`).
        finished: How many places followers have completed.
        remarks: Remarks of followers, shown in the report.
    """

    host: Host
    transformation: Transformation
    splices: Sequence[Splice]
    before: Before
    finished: int = 0
    remarks: list[str] = field(default_factory=list)

    @property
    def graph(self) -> onnx.GraphProto:
        """The graph as the transformation left it."""
        return self.host.graph

    @cached_property
    def workpiece(self) -> Workpiece:
        """Look-ups and edits on the graph as the transformation left it."""
        return self.host.workpiece()

    def tensor_types(self) -> TensorTypes:
        """Element types and shapes of the graph as it is now."""
        return self.host.tensor_types()

    def splices_of(self, cls: type[AbstractTransformation]) -> list[Splice]:
        """The splices with a pattern and a replacement of this class; a subclass may have its own as well."""
        known = next((row.pairs for row in rows().values() if row.cls is cls), ())
        return [splice for splice in self.splices if (splice.pattern, splice.replacement) in known]

    def old_initializer(self, name: str) -> onnx.TensorProto | None:
        """An initializer as the step found it, even if it has been removed since."""
        return self.before.initializer(name)


class Follower(Protocol):
    """Completes the result of a transformation. Followers run in order, each on the result of the one before."""

    def wants(self, transformation: Transformation) -> bool:
        """Whether the splices of this transformation are to be recorded."""
        ...

    def follow(self, step: DoneStep) -> None:
        """Called after a step that replaced something, or that may have changed the graph unrecorded.

        Raises:
            UndoStepError: It cannot do its part. The step is undone with this reason and the run goes on.
            Exception: Any other exception makes the step fail, as if the transformation had raised it.
        """
        ...
