"""`verify`: both models on the same inputs, output by output."""

from __future__ import annotations

import math
from collections.abc import Mapping, Sequence
from dataclasses import replace
from os import PathLike

import onnx

from onnxgraft.errors import VerificationError
from onnxgraft.evaluation import Convention, EvaluationError
from onnxgraft.preparation import prepare
from onnxgraft.verification import interface, notes
from onnxgraft.verification.comparing import compare, worst
from onnxgraft.verification.computing import Computer, Side
from onnxgraft.verification.first_difference import find_first_difference
from onnxgraft.verification.inputs import inputs_of
from onnxgraft.verification.result import OutputRow, Verification

# Quantize nodes round and clip as on the hardware; a convolution takes their offset out again (docs/evaluation.md).
CONVENTION = Convention(rounding=True, centred=True)


def verify(
    before: onnx.ModelProto,
    after: onnx.ModelProto,
    *,
    seed: int = 0,
    sizes: Mapping[str, int] | None = None,
    runs: int = 1,
    tolerance: float | None = None,
    folder_before: str | PathLike[str] | None = None,
    folder_after: str | PathLike[str] | None = None,
    convention: Convention = CONVENTION,
) -> Verification:
    """Evaluates both models on the same random inputs and compares each output.

    Integers have to be equal, floating-point numbers within `tolerance` times the largest absolute value of the output.

    Args:
        before: The model to compare with; it is not changed.
        after: What was made of it; it is not changed.
        seed: Of the inputs of the first run; run k takes `seed + k`.
        sizes: Sizes of symbolic dimensions by name, or of any unknown one as "input[axis]". Without: what a weight
            asks for, 1 for the batch, 64 for height and width, 16 for others.
        runs: How many different inputs are tried.
        tolerance: None for 1e-4, or what narrower floating-point types can hold.
        folder_before: Where the external data of `before` is; None for the current folder.
        folder_after: Where the external data of `after` is; None for the current folder.
        convention: How quantized operators are read.

    Returns:
        The rows, and notes on what the models themselves tell of a failure. Outputs that `after` lacks, or inputs of
        another type or shape, fail as well.

    Raises:
        VerificationError: No inputs can be made, or a wrong argument.
        EvaluationError: A model cannot be computed; the message says which one and where.
    """
    if runs < 1:
        raise VerificationError(f"runs has to be 1 or more, not {runs}")
    if tolerance is not None and not 0 <= tolerance < math.inf:
        raise VerificationError(f"the tolerance has to be 0 or a positive number, not {tolerance}")
    sides = [Side("before", _sorted(before), folder_before or ""), Side("after", _sorted(after), folder_after or "")]
    inputs = inputs_of(before, sizes or {})
    result = Verification(inputs={name: str(value) for name, value in inputs.items()}, seed=seed, runs=runs)
    names = interface.common_outputs(before.graph, after.graph)
    if problems := interface.input_problems(inputs, after.graph):
        result.notes += problems
        return result
    lost = interface.lost_outputs(before.graph, after.graph)
    result.notes += lost + interface.other_remarks(before.graph, after.graph)
    if not names:
        return result
    computer = Computer(inputs, seed)
    result.rows, failed = _compare(sides, names, computer, convention, runs, tolerance)
    result.passed = failed is None and not lost
    result.notes += _remarks(result.rows)
    if failed is not None:
        result.first_difference = find_first_difference(sides, computer, convention, failed, tolerance)
        result.notes += notes.notes_on_failure(before.graph, after.graph)
        result.notes += _without_rounding(sides, names, computer, convention, failed, tolerance)
    result.runner = computer.runner
    if computer.fallback is not None:
        result.notes.append(f"onnxruntime gave up: {computer.fallback}")
    return result


def _sorted(model: onnx.ModelProto) -> onnx.ModelProto:
    """The model, or a copy with its nodes in topological order if they are not."""
    known: set[str] = set()
    written = {name for node in model.graph.node for name in node.output}
    for node in model.graph.node:
        if any(name in written and name not in known for name in node.input):
            copy = onnx.ModelProto()
            copy.CopyFrom(model)
            prepare(copy, ["sort_nodes"])
            return copy
        known.update(node.output)
    return model


def _compare(
    sides: Sequence[Side],
    names: Sequence[str],
    computer: Computer,
    convention: Convention,
    runs: int,
    tolerance: float | None,
) -> tuple[list[OutputRow], int | None]:
    """A row for each output over all runs, and the first run in which one differs."""
    rows: dict[str, list[OutputRow]] = {name: [] for name in names}
    failed = None
    for run in range(runs):
        first, second = computer.compute(sides, names, convention, run)
        for name in names:
            rows[name].append(compare(name, first[name], second[name], tolerance))
        if failed is None and not all(found[-1].passed for found in rows.values()):
            failed = run
    return [worst(found) for found in rows.values()], failed


def _remarks(rows: Sequence[OutputRow]) -> list[str]:
    """What a row of the table does not say."""
    silent = [row.name for row in rows if row.scale == 0 and 0 not in row.shape and row.max_error == 0]
    return [f"{', '.join(silent)}: no finite element but 0, so that agreement proves little"] if silent else []


def _without_rounding(
    sides: Sequence[Side],
    names: Sequence[str],
    computer: Computer,
    convention: Convention,
    run: int,
    tolerance: float | None,
) -> list[str]:
    """Whether it is but the resolution of quantized values in which two quantized models differ."""
    if not convention.rounding or not notes.are_quantized(*(side.model.graph for side in sides)):
        return []
    try:
        first, second = computer.compute(sides, names, replace(convention, rounding=False), run)
    except EvaluationError:
        return []
    rows = [compare(name, first[name], second[name], tolerance) for name in names]
    if not all(row.passed and row.scale > 0 for row in rows):
        return []
    return [
        "with quantize nodes that only scale, neither round nor clip, the outputs agree: it is the resolution of "
        "quantized values that changed, as update_tesselquant and change_gap_conv change it"
    ]
