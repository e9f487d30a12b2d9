"""The two evaluators of standard models, with one signature. Their errors become one line that names the node.

Both get the lowered copy, which they may change.
"""

from __future__ import annotations

import importlib
from typing import Any

import numpy as np
import numpy.typing as npt
import onnx
from onnx.external_data_helper import load_external_data_for_model

from onnxgraft.errors import EvaluationError
from onnxgraft.evaluation.operator_formulas import label
from onnxgraft.evaluation.reference_operators import evaluator
from onnxgraft.graph.onnx_calls import make_harmless
from onnxgraft.io.external_data import has_external_data

Array = npt.NDArray[Any]

_LONGEST_REASON = 400
_EXTERNAL_FOLDER = "session.model_external_initializers_file_folder_path"


def run_reference(model: onnx.ModelProto, names: list[str], feeds: dict[str, Array], folder: str) -> list[Array]:
    """With onnx's own evaluator, which needs external tensors loaded. Overflows become infinities without a warning."""
    try:
        if has_external_data(model):
            load_external_data_for_model(model, folder)
        with np.errstate(all="ignore"):
            return [np.asarray(value) for value in evaluator(model).run(names, feeds)]
    except MemoryError:
        raise
    except Exception as error:
        node = _node_at_work(error)
        place = f"{label(node)} cannot be computed" if node is not None else "the evaluator failed"
        raise EvaluationError(f"{place}: {type(error).__name__}: {_in_one_line(error)}") from error


def run_onnxruntime(model: onnx.ModelProto, names: list[str], feeds: dict[str, Array], folder: str) -> list[Array]:
    """With onnxruntime, without its optimizations: they reorder arithmetic."""
    try:
        runtime: Any = importlib.import_module("onnxruntime")
    except ImportError as error:
        raise EvaluationError("onnxruntime is not installed") from error
    if found := make_harmless(model, remove=False):
        raise EvaluationError(f"onnxruntime would end the process: {found[0]}")
    declared = {value.name for value in model.graph.output}
    model.graph.output.extend(onnx.ValueInfoProto(name=name) for name in names if name not in declared)
    options = runtime.SessionOptions()
    options.graph_optimization_level = runtime.GraphOptimizationLevel.ORT_DISABLE_ALL
    options.log_severity_level = 4  # errors are raised as well
    if has_external_data(model):
        options.add_session_config_entry(_EXTERNAL_FOLDER, folder)
    try:
        session = runtime.InferenceSession(
            model.SerializeToString(), options, providers=["CPUExecutionProvider"], enable_fallback=0
        )
        return [np.asarray(value) for value in session.run(names, feeds)]
    except MemoryError:
        raise
    except Exception as error:
        raise EvaluationError(f"the evaluator failed: {_in_one_line(error)}") from error


def _node_at_work(error: BaseException) -> onnx.NodeProto | None:
    """The node where the reference evaluator failed: the first one that a frame of the traceback calls `node`."""
    trace = error.__traceback__
    while trace is not None:
        found = trace.tb_frame.f_locals.get("node")
        found = getattr(found, "onnx_node", found)
        if isinstance(found, onnx.NodeProto):
            return found
        trace = trace.tb_next
    return None


def _in_one_line(error: BaseException) -> str:
    text = " ".join(str(error).split())
    return text if len(text) <= _LONGEST_REASON else text[:_LONGEST_REASON] + " ..."
