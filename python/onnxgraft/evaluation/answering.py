"""The outputs of a model, quantized or not, for given samples."""

from __future__ import annotations

from collections.abc import Callable, Iterable, Mapping, Sequence
from os import PathLike
from typing import Any

import numpy as np
import numpy.typing as npt
import onnx

from onnxgraft.errors import EvaluationError
from onnxgraft.evaluation.convention import HARDWARE, Convention
from onnxgraft.evaluation.forward import Evaluator, ForwardRunner
from onnxgraft.evaluation.lowering import lower

Array = npt.NDArray[Any]


def answer(
    model: onnx.ModelProto,
    samples: Iterable[Mapping[str, Array]],
    *,
    outputs: Sequence[str] = (),
    convention: Convention = HARDWARE,
    evaluator: Evaluator = "auto",
    folder: str | PathLike[str] | None = None,
    progress: Callable[[int], object] | None = None,
) -> dict[str, Array]:
    """Computes a model on samples, one after the other.

    Args:
        model: The model; it is not changed.
        samples: An array for each input, by name.
        outputs: The tensors to compute, inner ones too; empty for the graph's outputs.
        convention: How quantized operators are read.
        evaluator: "auto" chooses onnxruntime if it is installed.
        folder: The folder that the locations of external tensors start from; None is the current one.
        progress: Called with the number of each finished sample.

    Returns:
        The tensors by name. For one sample, each as it is; for several, stacked along a new first axis.

    Raises:
        EvaluationError: There is no sample, the model does not have such a tensor or cannot be computed, or results of
            several samples are of different shapes.
    """
    lowered = lower(model, convention, folder=folder or "")
    written = {name for node in lowered.graph.node for name in node.output if name}
    if unknown := [name for name in outputs if name not in written]:
        raise EvaluationError(f"no node of the model writes a tensor '{unknown[0]}'")
    runner = ForwardRunner(lowered, list(outputs) or None, folder=folder, evaluator=evaluator)
    results: dict[str, list[Array]] = {name: [] for name in runner.outputs}
    for number, sample in enumerate(samples, 1):
        for name, values in runner.run(sample).items():
            first = (results[name] or [values])[0]
            if first.shape != values.shape:
                raise EvaluationError(
                    f"'{name}' has shape {list(values.shape)} for sample {number} and {list(first.shape)} for earlier "
                    "ones, so they cannot be stacked: compute the samples one by one"
                )
            results[name].append(values)
        if progress is not None:
            progress(number)
    if not all(results.values()):
        raise EvaluationError("there are no samples to compute")
    return {name: found[0] if len(found) == 1 else np.stack(found) for name, found in results.items()}
