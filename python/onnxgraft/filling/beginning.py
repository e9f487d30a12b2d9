"""Decides, on the prepared float model, what a run will fill in."""

from __future__ import annotations

import difflib
import os
from collections.abc import Callable, Iterable, Sequence
from dataclasses import replace
from typing import TYPE_CHECKING

import onnx

from onnxgraft import quant
from onnxgraft.filling.equalizing import Renamed, equalize
from onnxgraft.filling.errors import FillingError
from onnxgraft.filling.filler import Filler
from onnxgraft.filling.operators import Quantizable, quantizable
from onnxgraft.filling.origins import origin_of
from onnxgraft.filling.plan import Plan
from onnxgraft.filling.settings import Filling
from onnxgraft.filling.trials import choose

if TYPE_CHECKING:
    from onnxgraft.catalogue import Transformation
    from onnxgraft.io.weight_store import WeightStore

Shape = tuple[int | None, ...]


def begin(
    model: onnx.ModelProto,
    filling: Filling,
    chosen: Sequence[Transformation],
    *,
    folder: str | os.PathLike[str] | None = None,
    store: WeightStore | None = None,
    progress: Callable[[str], object] | None = None,
) -> Filler:
    """The filler of a run that is about to start.

    Args:
        model: The model, prepared and float.
        filling: The numbers to fill in.
        chosen: The transformations that will run.
        folder: The folder that the locations of external tensors start from.
        store: Where to put new weights, if not into the graph.
        progress: Called with a description of the current work.

    Raises:
        FillingError: A transformation draws numbers in an unknown way, a tensor has no range, or an operator that is to
            stay float does not exist.
    """
    for row in chosen:
        Filler.check(row)
    graph = model.graph
    operators = quantizable(graph, chosen)
    left = _left_float(operators, filling.leave)
    operators = [operator for operator in operators if operator.output not in left]
    _check_ranges(graph, operators, filling)
    calibration = filling.calibration
    renamed = equalize(graph, calibration, store) if filling.equalize else Renamed()
    if renamed.names:
        calibration = renamed.applied(calibration)
        left = {renamed.names.get(name, name): reason for name, reason in left.items()}
        operators = [operator for operator in quantizable(graph, chosen) if operator.output not in left]
    plan = Plan(
        calibration,
        symmetric=filling.symmetric,
        left_float=left,
        uncentred=frozenset(operator.output for operator in operators if _hides_padding(operator.node)),
        ranks={name: len(shape) for name, shape in _shapes(graph).items()},
    )
    decibels: dict[str, float] = {}
    if filling.data is not None and (filling.float_share or filling.bias_correction is not False):
        normalized = _joined_before_normalization(graph, chosen)
        choice = choose(
            model,
            operators,
            [origin_of(plan, graph, operator) for operator in operators],
            filling.data,
            float_share=filling.float_share,
            correct=filling.bias_correction,
            may_correct=lambda operator: operator.bias is not None or operator.output not in normalized,
            folder=folder,
            progress=progress,
        )
        plan = replace(plan, left_float={**left, **choice.left_float}, corrections=choice.corrections)
        decibels = choice.decibels
    filler = Filler(plan, store)
    filler.result.decibels = decibels
    if renamed.ranges:
        filler.note(f"the channels of {len(renamed.ranges)} tensors that depthwise Conv nodes read have one range now")
    if before := sum(node.op_type == "TesselQuant" for node in graph.node):
        filler.warn(f"{before} quantize nodes existed before the run: their numbers, real or random, stay as they were")
    return filler


def _joined_before_normalization(graph: onnx.GraphProto, chosen: Iterable[Transformation]) -> frozenset[str]:
    """The operators that `fuse_bn_quant` will look for: it expects convolutions without bias, so none may get one."""
    if not any(issubclass(row.cls, quant.FuseQuantBatchNormTransformation) for row in chosen):
        return frozenset()
    normalized = {node.input[0] for node in graph.node if node.op_type == "BatchNormalization"}
    joined = (node for node in graph.node if node.op_type == "Concat" and node.output[0] in normalized)
    return frozenset(name for node in joined for name in node.input)


def _shapes(graph: onnx.GraphProto) -> dict[str, Shape]:
    """The shapes of tensors, as far as they are declared; None for a size that is not fixed."""
    shapes: dict[str, Shape] = {tensor.name: tuple(tensor.dims) for tensor in graph.initializer}
    for value in (*graph.value_info, *graph.output, *graph.input):
        kind = value.type.tensor_type
        if kind.HasField("shape"):
            shapes[value.name] = tuple(size.dim_value if size.dim_value > 0 else None for size in kind.shape.dim)
    return shapes


def _hides_padding(node: onnx.NodeProto) -> bool:
    """Whether preparation could not write the padding out: moving a quantize node takes only `pads` into account."""
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


def _check_ranges(graph: onnx.GraphProto, operators: Sequence[Quantizable], filling: Filling) -> None:
    """Refuses, before anything is changed, inputs that would fail in the middle."""
    constants = {tensor.name for tensor in graph.initializer}
    for operator in operators:
        tensor = operator.node.input[0]
        if tensor not in constants and tensor not in filling.calibration.ranges:
            raise FillingError(
                f"{operator.label} cannot be filled: the calibration has no range for tensor '{tensor}', which it reads"
            )
