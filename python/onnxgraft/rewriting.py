"""Runs transformations over a model one after the other and keeps count."""

from __future__ import annotations

import os
from collections.abc import Callable, Iterable
from dataclasses import dataclass

import numpy as np
import onnx

from onnxgraft.catalogue import Transformation
from onnxgraft.errors import TransformationError
from onnxgraft.transform_utilities import external_data_folder


@dataclass(frozen=True)
class Step:
    """What one transformation did."""

    name: str
    replaced: int
    nodes_before: int
    nodes_after: int


def rewrite(
    model: onnx.ModelProto,
    transformations: Iterable[Transformation],
    *,
    folder: str | os.PathLike[str],
    seed: int | None = None,
    on_start: Callable[[Transformation], object] = lambda _: None,
) -> list[Step]:
    """Applies `transformations` in order to the graph of `model`, in place.

    Args:
        model: The model; its large tensors may be in external files.
        transformations: What to run.
        folder: The folder that the locations of external tensors start from.
        seed: Seeds NumPy's global generator once, before the first transformation; None leaves it as it is.
        on_start: Called before each transformation.

    Raises:
        TransformationError: A transformation failed; the model may be partly rewritten then.
    """
    if seed is not None:
        np.random.seed(seed)
    steps = []
    with external_data_folder(folder):
        for transformation in transformations:
            on_start(transformation)
            before = len(model.graph.node)
            try:
                replaced = transformation.apply(model.graph)
            except MemoryError:
                raise
            except Exception as error:
                reason = " ".join(str(error).split()) or "no reason given"
                raise TransformationError(f"{transformation.name}: {type(error).__name__}: {reason}") from error
            steps.append(Step(transformation.name, replaced, before, len(model.graph.node)))
    return steps
