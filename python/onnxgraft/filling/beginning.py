"""Settles, on the prepared float model, what a run will fill in."""

from __future__ import annotations

import difflib
from collections.abc import Iterable, Sequence
from typing import TYPE_CHECKING

import onnx

from onnxgraft.filling.errors import FillingError
from onnxgraft.filling.filler import Filler
from onnxgraft.filling.operators import Quantizable, quantizable
from onnxgraft.filling.plan import Plan
from onnxgraft.filling.settings import Filling

if TYPE_CHECKING:
    from onnxgraft.catalogue import Transformation
    from onnxgraft.io.weight_store import WeightStore

Shape = tuple[int | None, ...]


def begin(
    model: onnx.ModelProto, filling: Filling, chosen: Sequence[Transformation], store: WeightStore | None = None
) -> Filler:
    """The filler of a run that is about to begin.

    Args:
        model: The model, prepared and float.
        filling: What to fill it with.
        chosen: The transformations that will run.
        store: Where new weights go, if not into the graph.

    Raises:
        FillingError: A transformation draws numbers in an unknown way, a tensor has no range, or an operator that is
            to stay float does not exist.
    """
    for row in chosen:
        Filler.check(row)
    graph = model.graph
    operators = quantizable(graph, chosen)
    shapes = _shapes(graph)
    left = _left_float(operators, filling.leave)
    _check_ranges(graph, operators, left, filling)
    plan = Plan(
        filling.calibration,
        symmetric=filling.symmetric,
        left_float=left,
        uncentred=frozenset(operator.output for operator in operators if _hides_padding(operator.node)),
        ranks={name: len(shape) for name, shape in shapes.items()},
    )
    return Filler(plan, store)


def _shapes(graph: onnx.GraphProto) -> dict[str, Shape]:
    """The shapes of tensors, as far as they are declared; None for a size that is not fixed."""
    shapes: dict[str, Shape] = {tensor.name: tuple(tensor.dims) for tensor in graph.initializer}
    for value in (*graph.value_info, *graph.output, *graph.input):
        kind = value.type.tensor_type
        if kind.HasField("shape"):
            shapes[value.name] = tuple(size.dim_value if size.dim_value > 0 else None for size in kind.shape.dim)
    return shapes


def _hides_padding(node: onnx.NodeProto) -> bool:
    """Whether preparation could not write the padding out: whoever moves a quantize node looks at `pads` alone."""
    return any(one.name == "auto_pad" and one.s in {b"SAME_UPPER", b"SAME_LOWER"} for one in node.attribute)


def _left_float(operators: Sequence[Quantizable], names: Iterable[str]) -> dict[str, str]:
    known = {name: operator for operator in operators for name in (operator.output, operator.written)}
    known |= {operator.node.name: operator for operator in operators if operator.node.name}
    left = {}
    for name in [names] if isinstance(names, str) else names:
        if name not in known:
            similar = difflib.get_close_matches(name, known, n=3, cutoff=0.6)
            hint = f"; did you mean {' or '.join(similar)}?" if similar else ""
            raise FillingError(f"'{name}' cannot be left float: no operator of that name would be quantized{hint}")
        left[known[name].output] = "asked for"
    return left


def _check_ranges(
    graph: onnx.GraphProto, operators: Sequence[Quantizable], left: Iterable[str], filling: Filling
) -> None:
    """Refuses before anything is changed what would fail in the middle."""
    left, constants = set(left), {tensor.name for tensor in graph.initializer}
    for operator in operators:
        tensor = operator.node.input[0]
        if operator.output not in left and tensor not in constants and tensor not in filling.calibration.ranges:
            raise FillingError(
                f"{operator.label} cannot be filled: the calibration has no range for tensor '{tensor}', which it reads"
            )
