"""`verify`: both models on the same inputs, output by output."""

from __future__ import annotations

import math
from collections.abc import Iterable, Mapping, Sequence
from dataclasses import replace
from os import PathLike

import onnx

from onnxgraft.errors import VerificationError
from onnxgraft.evaluation import HARDWARE, Convention, EvaluationError
from onnxgraft.graph.name_check import check_texts
from onnxgraft.io.given import folder_of, opened_model
from onnxgraft.samples.random_values import given_values, inputs_of, random_values
from onnxgraft.verification import interface, notes
from onnxgraft.verification.comparing import compare, worst
from onnxgraft.verification.computing import Array, Computer, Side, sorted_model
from onnxgraft.verification.first_difference import find_first_difference
from onnxgraft.verification.result import OutputRow, Verification


def verify(
    before: onnx.ModelProto | str | PathLike[str],
    after: onnx.ModelProto | str | PathLike[str],
    *,
    seed: int = 0,
    sizes: Mapping[str, int] | None = None,
    runs: int = 1,
    tolerance: float | None = None,
    inputs: Iterable[Mapping[str, Array]] | None = None,
    folder_before: str | PathLike[str] | None = None,
    folder_after: str | PathLike[str] | None = None,
    convention: Convention = HARDWARE,
) -> Verification:
    """Evaluates both models on the same inputs and compares each output.

    Integers must be equal, floating-point numbers within `tolerance` times the largest absolute value of the output.

    Args:
        before: The model to compare with, or its path; it is not changed.
        after: The model made from it; it is not changed.
        seed: The seed of the inputs of the first run; run k uses `seed + k`.
        sizes: Sizes of symbolic dimensions by name, or of any unknown one as "input[axis]". Default: the size that a
            weight requires, 1 for the batch, 64 for height and width, 16 for others.
        runs: How many different inputs to try.
        tolerance: None for 1e-4, or what narrower floating-point types can hold.
        inputs: Samples to compute on instead of random ones, one run each: an array for each input of `before` by name,
            in its element type and shape. `onnxgraft.samples.open_data` reads them from files. `seed`, `sizes` and
            `runs` must then keep their defaults.
        folder_before: Where the external data of `before` is; None for the current folder.
        folder_after: Where the external data of `after` is; None for the current folder.
        convention: How quantized operators are read.

    Returns:
        The rows, and notes about a failure that follow from the models themselves. Outputs that `after` does not have,
        or inputs of another type or shape, fail as well.

    Raises:
        ModelFileError: A name in a model is not UTF-8.
        VerificationError: No inputs can be made, or a wrong argument.
        EvaluationError: A model cannot be computed; the message names the model and the node.
    """
    folder_before, folder_after = folder_of(before, folder_before), folder_of(after, folder_after)
    before, after = opened_model(before), opened_model(after)
    check_texts(before, after)
    if runs < 1:
        raise VerificationError(f"runs must be 1 or more, not {runs}")
    if tolerance is not None and not 0 <= tolerance < math.inf:
        raise VerificationError(f"the tolerance must be 0 or a positive number, not {tolerance}")
    sides = [
        Side("before", sorted_model(before), folder_before or ""),
        Side("after", sorted_model(after), folder_after or ""),
    ]
    feeds: Iterable[Mapping[str, Array]]
    if inputs is None:
        wanted = inputs_of(before, sizes or {})
        feeds = (random_values(wanted, seed + run) for run in range(runs))
    else:
        if seed or sizes or runs != 1:
            raise VerificationError("given inputs replace random ones: do not set seed, sizes or runs as well")
        feeds, wanted = given_values(before, inputs)
    result = Verification(inputs={name: str(value) for name, value in wanted.items()}, runs=runs)
    result.seed = seed if inputs is None else None
    names = interface.common_outputs(before.graph, after.graph)
    if problems := interface.input_problems(wanted, after.graph):
        result.notes += problems
        return result
    lost = interface.lost_outputs(before.graph, after.graph)
    result.notes += lost + interface.other_remarks(before.graph, after.graph)
    if not names:
        return result
    computer = Computer()
    result.rows, result.runs, failed = _compare(sides, names, computer, convention, feeds, tolerance)
    result.passed = failed is None and not lost
    result.notes += _remarks(result.rows)
    if failed is not None:
        result.first_difference = find_first_difference(sides, computer, convention, failed, tolerance)
        result.notes += notes.notes_on_failure(before.graph, after.graph)
        result.notes += _without_rounding(sides, names, computer, convention, failed, tolerance)
    result.runner = computer.runner
    if computer.fallback is not None:
        result.notes.append(f"onnxruntime failed: {computer.fallback}")
    return result


def _compare(
    sides: Sequence[Side],
    names: Sequence[str],
    computer: Computer,
    convention: Convention,
    feeds: Iterable[Mapping[str, Array]],
    tolerance: float | None,
) -> tuple[list[OutputRow], int, Mapping[str, Array] | None]:
    """A row for each output over all runs, their number, and the inputs of the first run that did not pass."""
    rows: dict[str, list[OutputRow]] = {name: [] for name in names}
    runs, failed, differs = 0, None, False
    for values in feeds:
        runs += 1
        first, second = computer.compute(sides, names, convention, values)
        for name in names:
            rows[name].append(compare(name, first[name], second[name], tolerance))
        latest = [found[-1] for found in rows.values()]
        # A run that differs says more than one with nothing to compare.
        if not differs and not all(row.passed for row in latest):
            differs = any(row.compared and not row.passed for row in latest)
            if failed is None or differs:
                failed = values
    return [worst(found) for found in rows.values()], runs, failed


def _remarks(rows: Sequence[OutputRow]) -> list[str]:
    """Facts that a row of the table does not show."""
    silent = [row.name for row in rows if row.passed and row.scale == 0 and 0 not in row.shape and row.max_error == 0]
    lost = [row.name for row in rows if not row.compared]
    found = [f"{', '.join(silent)}: the only finite element is 0, so agreement proves little"] if silent else []
    return found + [f"output '{name}' has no finite element: nothing was compared" for name in lost]


def _without_rounding(
    sides: Sequence[Side],
    names: Sequence[str],
    computer: Computer,
    convention: Convention,
    values: Mapping[str, Array],
    tolerance: float | None,
) -> list[str]:
    """Whether two quantized models differ only in the resolution of their quantized values."""
    if not convention.rounding or not notes.are_quantized(*(side.model.graph for side in sides)):
        return []
    try:
        first, second = computer.compute(sides, names, replace(convention, rounding=False), values)
    except EvaluationError:
        return []
    rows = [compare(name, first[name], second[name], tolerance) for name in names]
    if not all(row.passed and row.scale > 0 for row in rows):
        return []
    return [
        "with quantize nodes that only scale, without rounding or clipping, the outputs agree: only the resolution of "
        "quantized values changed, as update_tesselquant and change_gap_conv change it"
    ]
