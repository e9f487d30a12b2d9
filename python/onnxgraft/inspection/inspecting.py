"""`inspect`: counts and sizes of a model, read without changing it."""

from __future__ import annotations

import os
from collections import Counter
from pathlib import Path

import onnx

from onnxgraft.accounting import account_of, declared_shapes
from onnxgraft.graph.tensors import stored_tensors
from onnxgraft.inspection.ranking import LARGEST, rank_recipes, weight_bytes
from onnxgraft.inspection.result import Inspection
from onnxgraft.io.external_data import data_files_of
from onnxgraft.io.given import opened_model
from onnxgraft.preparation import prepare
from onnxgraft.report.node_texts import value_text


def inspect(
    model: onnx.ModelProto | str | os.PathLike[str],
    *,
    folder: str | os.PathLike[str] | None = None,
    recipes: bool = True,
) -> Inspection:
    """Reads the main facts about a model.

    Args:
        model: A model, or the path of one; it is not changed.
        folder: The folder that the locations of external tensors start from; None: that of the path, or the current
            one.
        recipes: Whether to find the recipes that would replace most, by running each on a copy in memory. Skipped for
            models with more than 1 GiB of weights.

    Returns:
        Counts, sizes, coverage and recipes.

    Raises:
        ModelFileError: The file cannot be read.
    """
    path = Path(model) if isinstance(model, str | os.PathLike) else None
    loaded = opened_model(model)
    where = Path(folder) if folder is not None else path.parent if path is not None else Path()
    graph = loaded.graph
    files = [] if path is None else [path, *data_files_of(loaded, where)]
    constants = {tensor.name for tensor in graph.initializer}
    return Inspection(
        name=path.name if path is not None else graph.name,
        producer=" ".join(filter(None, (loaded.producer_name, loaded.producer_version))),
        ir_version=loaded.ir_version,
        opsets={entry.domain or "ai.onnx": entry.version for entry in loaded.opset_import},
        inputs={value.name: value_text(value) for value in graph.input if value.name not in constants},
        outputs={value.name: value_text(value) for value in graph.output},
        nodes=len(graph.node),
        operators=dict(Counter(node.op_type for node in graph.node).most_common()),
        account=account_of(graph, declared_shapes(_with_shapes(loaded, where)), None, loaded.functions),
        weights=sum(1 for _ in stored_tensors(loaded)),
        weight_bytes=weight_bytes(loaded),
        file_bytes=sum(file.stat().st_size for file in files if file.is_file()),
        recipes=rank_recipes(loaded, where) if recipes and weight_bytes(loaded) <= LARGEST else [],
    )


def _with_shapes(model: onnx.ModelProto, folder: Path) -> onnx.GraphProto:
    """The graph with the shapes that can be inferred, in a copy without the content of weights."""
    copy = onnx.ModelProto()
    copy.CopyFrom(model)
    prepare(copy, ["infer_shapes"], folder=folder)
    return copy.graph
