"""A node that passes its input on unchanged -> its readers read that input.

- `Slice` from the first to the last element of each axis that it names.
- `Pad` by nothing.
- `Cast` to the type that its input has.
- `Dropout` in inference, if its mask is not read.
- `Concat` of one tensor.
"""

from __future__ import annotations

from collections.abc import Callable
from functools import cached_property

import numpy as np
from onnx import NodeProto, TensorProto, TypeProto

from onnxgraft.preparation.redirecting import bypass
from onnxgraft.preparation.workpiece import Workpiece, input_of, is_standard, known_lengths

# "To the end" if the length is unknown: the largest number of either index type, as exporters write it.
_TO_THE_END = np.iinfo(np.int32).max
# From this operator set on, a `Dropout` trains only if its input says so.
_DROPOUT_OF_INFERENCE = 7


def drop_no_ops(workpiece: Workpiece) -> int:
    """Redirects the readers; the node stays where the graph returns its output or a nested body reads it."""
    candidates = [node for node in workpiece.graph.node if node.op_type in _CHECKS and _is_candidate(node)]
    facts = _Facts(workpiece)
    return bypass(workpiece, {node.output[0]: node.input[0] for node in candidates if _does_nothing(node, facts)})


class _Facts:
    """Facts about the tensors, looked up once and only on demand."""

    def __init__(self, workpiece: Workpiece) -> None:
        self._workpiece = workpiece
        self.opset = workpiece.opset

    @cached_property
    def read(self) -> set[str]:
        return {name for node in self._workpiece.graph.node for name in node.input} | self._workpiece.kept_names()

    @cached_property
    def types(self) -> dict[str, TypeProto.Tensor]:
        return self._workpiece.types()

    @cached_property
    def _constants(self) -> dict[str, TensorProto]:
        return self._workpiece.constants()

    def numbers(self, name: str) -> list[int] | None:
        """The elements of a constant; None if it is not one or cannot be read."""
        tensor = self._constants.get(name)
        array = None if tensor is None else self._workpiece.values(tensor)
        return None if array is None else array.ravel().tolist()

    def shape(self, name: str) -> list[int | None] | None:
        """The length of each axis, None if it is unknown; None instead of a list if the rank is unknown."""
        return known_lengths(self.types.get(name))


def _is_candidate(node: NodeProto) -> bool:
    return is_standard(node, node.op_type) and bool(input_of(node, 0)) and bool(node.output) and bool(node.output[0])


def _does_nothing(node: NodeProto, facts: _Facts) -> bool:
    return _CHECKS[node.op_type](node, facts) and not any(name in facts.read for name in node.output[1:] if name)


def _slices_all(node: NodeProto, facts: _Facts) -> bool:
    bounds = _bounds(node, facts)
    if bounds is None:
        return False
    starts, ends, axes, steps = bounds
    shape = facts.shape(node.input[0])
    for start, end, axis, step in zip(starts, ends, axes, steps, strict=True):
        length = shape[axis] if shape is not None and -len(shape) <= axis < len(shape) else None
        from_first = start == 0 or (length is not None and start <= -length)
        to_last = end >= _TO_THE_END or (length is not None and end >= length)
        if step != 1 or not from_first or not to_last:
            return False
    return True


def _bounds(node: NodeProto, facts: _Facts) -> tuple[list[int], list[int], list[int], list[int]] | None:
    """Starts, ends, axes and steps of a `Slice`, of equal length; None if one of them is not constant."""
    given: list[list[int] | None]
    if len(node.input) > 1:
        given = [facts.numbers(name) if name else [] for name in node.input[1:]]
    else:
        lists = {attribute.name: list(attribute.ints) for attribute in node.attribute}
        given = [lists.get("starts"), lists.get("ends"), lists.get("axes", [])]
    known = [numbers for numbers in given if numbers is not None]
    if len(known) < max(len(given), 2):
        return None
    starts, ends, axes, steps = (*known, [], [])[:4]
    axes, steps = axes or list(range(len(starts))), steps or [1] * len(starts)
    return (starts, ends, axes, steps) if len({len(starts), len(ends), len(axes), len(steps)}) == 1 else None


def _pads_nothing(node: NodeProto, facts: _Facts) -> bool:
    pads = next((list(attribute.ints) for attribute in node.attribute if attribute.name == "pads"), None)
    if pads is None and len(node.input) > 1:
        pads = facts.numbers(node.input[1])
    return pads is not None and not any(pads)


def _casts_to_same(node: NodeProto, facts: _Facts) -> bool:
    tensor = facts.types.get(node.input[0])
    to = next((attribute.i for attribute in node.attribute if attribute.name == "to"), 0)
    return tensor is not None and to != TensorProto.UNDEFINED and tensor.elem_type == to


def _drops_nothing(node: NodeProto, facts: _Facts) -> bool:
    if facts.opset < _DROPOUT_OF_INFERENCE:  # or unknown
        return any(attribute.name == "is_test" and attribute.i == 1 for attribute in node.attribute)
    training = input_of(node, 2)
    return not training or facts.numbers(training) == [False]


_CHECKS: dict[str, Callable[[NodeProto, _Facts], bool]] = {
    "Slice": _slices_all,
    "Pad": _pads_nothing,
    "Cast": _casts_to_same,
    "Dropout": _drops_nothing,
    "Concat": lambda node, _: len(node.input) == 1,
}
