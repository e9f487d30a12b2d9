"""Accompanies the steps of a run and puts real numbers where a transformation draws, drops or shifts them.

Each transformation edits the graph as usual; a function that runs before its callback then sets the numbers of the
occurrence. The float numbers of an operator are kept, by the name of its INT8 weight. So a later transformation that
changes its input's parameters gets numbers made from the float values, not from rounded ones.
"""

from __future__ import annotations

import copy
import inspect
from collections.abc import Callable, Iterator, Mapping, Sequence
from contextlib import contextmanager
from dataclasses import dataclass
from types import MethodType
from typing import Any

import onnx

from onnxgraft.catalogue import CALLBACK, Transformation, intercepted
from onnxgraft.filling.errors import FillingError
from onnxgraft.filling.origins import Origin
from onnxgraft.filling.plan import Plan
from onnxgraft.graph.names import all_names
from onnxgraft.io.weight_store import WeightStore
from onnxgraft.report.filled_records import FillingResult, LeftFloat
from onnxgraft.report.operator_numbers import OperatorNumbers

_REASONS = "refusal_reasons"


@dataclass(frozen=True)
class Call:
    """One call of a callback: its arguments, and its transformation."""

    transformation: Any
    graph: onnx.GraphProto
    replaced: Sequence[onnx.NodeProto]
    places: Mapping[int, int]
    links: Mapping[str, str]
    reasons: list[str]
    proceed: Callable[[], bool]

    def node(self, position: int) -> onnx.NodeProto:
        """The node at a position of the replacement."""
        return self.graph.node[self.places[position]]


class Filler:
    """Fills one graph while transformations run over it.

    Attributes:
        plan: The decisions made before the run.
        result: The record of the filling.
        store: Where to put new weights, if not into the graph.
        origins: The float form of quantized operators, by the name of their INT8 weight.
    """

    def __init__(self, plan: Plan, store: WeightStore | None = None) -> None:
        self.plan = plan
        self.result = FillingResult(plan.calibration.method, plan.calibration.samples)
        self.store = store
        self.origins: dict[str, Origin] = {}
        self._taken: set[str] = set()
        self._after_step: list[Callable[[onnx.GraphProto], None]] = []

    @staticmethod
    def check(transformation: Transformation) -> None:
        """Refuses a transformation that draws numbers in an unknown way.

        Raises:
            FillingError: It would leave random numbers in the model.
        """
        if transformation.randomizes and _handler(transformation.cls) is None:
            name = transformation.name
            raise FillingError(f"'{name}' draws numbers that cannot be filled in: run it without a calibration")

    @contextmanager
    def watch(self, transformation: Any, graph: onnx.GraphProto) -> Iterator[None]:
        """Fills the results of `transformation` inside the `with` block."""
        self._taken.clear()
        waiting, self._after_step = self._after_step, []
        for task in waiting:
            task(graph)
        handler = _handler(type(transformation))
        if handler is None:
            yield
            return
        front = self._in_front(handler, getattr(transformation, CALLBACK), transformation)
        origins, result = dict(self.origins), copy.deepcopy(self.result)
        try:
            with intercepted(transformation, {CALLBACK: front}):
                yield
        except BaseException:  # the step is undone, so nothing of it was filled
            self.origins, self.result = origins, result
            raise

    def origin(self, weight: str) -> Origin:
        """The float form of the operator with this INT8 weight.

        Raises:
            FillingError: It was quantized before this run, so its float values are not known.
        """
        found = self.origins.get(weight)
        if found is None:
            raise FillingError(f"the float values of INT8 weight '{weight}' are not known: it was quantized before")
        return found

    def share_cut_off(self, numbers: OperatorNumbers) -> float | None:
        """The share of the calibrated values that an operator's quantize node cuts off; None if that is not known."""
        origin = self.origins.get(numbers.weight)
        if origin is None or (origin.activation.scale, origin.activation.offset) != (numbers.scale, numbers.offset):
            return None
        return self.plan.calibration.outside.get(origin.tensor)

    def fresh_name(self, graph: onnx.GraphProto, wanted: str) -> str:
        """An unused name in the graph, close to the one asked for."""
        if not self._taken:
            self._taken.update(all_names(graph))
        name, number = wanted, 1
        while name in self._taken:
            name, number = f"{wanted}_{number}", number + 1
        self._taken.add(name)
        return name

    def after_step(self, task: Callable[[onnx.GraphProto], None]) -> None:
        """Schedules a call for the end of the step, after it is finished and before the next one starts."""
        self._after_step.append(task)

    def left_float(self, left: LeftFloat) -> None:
        """Records an operator that is not quantized, once."""
        if left not in self.result.left_float:
            self.result.left_float.append(left)

    def forget(self, origin: Origin) -> None:
        """Removes an operator that is float again from the result."""
        self.result.operators = [one for one in self.result.operators if one.output != origin.output]
        self.left_float(LeftFloat(origin.label, origin.output, "made float again by change_gap_conv"))

    def warn(self, text: str) -> None:
        """Adds a warning to the result, once."""
        if text not in self.result.warnings:
            self.result.warnings.append(text)

    def note(self, text: str) -> None:
        """Adds a remark to the result, once."""
        if text not in self.result.notes:
            self.result.notes.append(text)

    def _in_front(self, handler: Handler, original: Any, transformation: Any) -> MethodType:
        takes_reasons = _takes_reasons(original)

        # The parameters have the names of the replaced method.
        def on_replace(
            _self: Any,
            graph: Any,
            replaced_nodes: Any,
            isomorphic_node_mapping: Any,
            isomorphic_links_mapping: Any,
            **named: Any,
        ) -> bool:
            reasons = named.get(_REASONS, [])
            if not takes_reasons:
                named.pop(_REASONS, None)
            arguments = (graph, replaced_nodes, isomorphic_node_mapping, isomorphic_links_mapping)
            return handler(self, Call(transformation, *arguments, reasons, lambda: bool(original(*arguments, **named))))

        return MethodType(on_replace, transformation)


Handler = Callable[[Filler, Call], bool]


def _handler(cls: type[Any]) -> Handler | None:
    from onnxgraft.filling.handlers import HANDLERS  # they import this module  # noqa: PLC0415

    for known, handler in HANDLERS:
        if issubclass(cls, known):
            return handler
    return None


def _takes_reasons(callback: Callable[..., object]) -> bool:
    try:
        parameters = inspect.signature(callback).parameters
    except (TypeError, ValueError):
        return False
    return _REASONS in parameters or any(p.kind == p.VAR_KEYWORD for p in parameters.values())
