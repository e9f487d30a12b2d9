"""Runs a standard model many times: with onnxruntime if it is installed, otherwise with onnx's own evaluator."""

from __future__ import annotations

import importlib
import importlib.util
import logging
import os
from collections.abc import Mapping, Sequence
from typing import Any, Literal, Protocol

import numpy as np
import numpy.typing as npt
import onnx
from onnx.external_data_helper import load_external_data_for_model

from onnxgraft.errors import EvaluationError
from onnxgraft.evaluation.reference_operators import evaluator
from onnxgraft.io.external_data import has_external_data

Array = npt.NDArray[Any]
Evaluator = Literal["auto", "onnxruntime", "reference"]

_log = logging.getLogger(__name__)
_LONGEST_REASON = 300
_EXTERNAL_FOLDER = "session.model_external_initializers_file_folder_path"


class _Runner(Protocol):
    def run(self, names: list[str], feeds: Mapping[str, Array]) -> Sequence[Any]: ...


class ForwardRunner:
    """A model that is loaded once and computed any number of times.

    Args:
        model: A model of standard operators; it is not changed.
        outputs: Names of the tensors to compute, inner ones too; None for the graph's outputs.
        folder: The folder that the locations of external tensors start from; None is the current one.
        evaluator: "auto" chooses onnxruntime if it is installed.
        optimize: Whether onnxruntime may fuse operators. Values then differ in the last bits.

    Raises:
        EvaluationError: onnxruntime is requested and missing, or refuses the model.
    """

    def __init__(
        self,
        model: onnx.ModelProto,
        outputs: Sequence[str] | None = None,
        *,
        folder: str | os.PathLike[str] | None = None,
        evaluator: Evaluator = "auto",
        optimize: bool = False,
    ) -> None:
        self.outputs = [value.name for value in model.graph.output] if outputs is None else list(outputs)
        place = os.fspath(folder) if folder is not None else ""
        wanted = "onnxruntime" if evaluator == "auto" and importlib.util.find_spec("onnxruntime") else evaluator
        self._runner: _Runner
        if wanted == "onnxruntime":
            self.evaluator = "onnxruntime"
            self._runner = _WithOnnxruntime(model, self.outputs, place, optimize=optimize)
        else:
            self.evaluator = "onnx.reference"
            if evaluator == "auto":
                _log.info(
                    "onnxruntime is not installed: onnx's own evaluator computes instead, which takes much longer"
                )
            self._runner = _WithReference(model, place)

    def run(self, feeds: Mapping[str, Array]) -> dict[str, Array]:
        """The outputs by name, for a value of each graph input.

        Raises:
            EvaluationError: The model does not run on these values.
        """
        return dict(zip(self.outputs, map(np.asarray, self._runner.run(self.outputs, feeds)), strict=True))


class _WithOnnxruntime:
    def __init__(self, model: onnx.ModelProto, names: Sequence[str], folder: str, *, optimize: bool) -> None:
        try:
            runtime: Any = importlib.import_module("onnxruntime")
        except ImportError as error:
            raise EvaluationError(
                "onnxruntime is not installed: pip install 'onnx-graft[run]', or choose the evaluator 'reference'"
            ) from error
        options = runtime.SessionOptions()
        level = runtime.GraphOptimizationLevel
        options.graph_optimization_level = level.ORT_ENABLE_ALL if optimize else level.ORT_DISABLE_ALL
        options.log_severity_level = 4  # errors are raised as well
        # Samples differ in shape: memory planned for one shape would be kept for each.
        options.enable_mem_pattern = False
        options.enable_cpu_mem_arena = False
        if has_external_data(model):
            options.add_session_config_entry(_EXTERNAL_FOLDER, folder or ".")
        try:
            content = _with_outputs(model, names)
            self._session = runtime.InferenceSession(content, options, providers=["CPUExecutionProvider"])
        except MemoryError:
            raise
        except Exception as error:
            raise EvaluationError(f"onnxruntime refuses the model: {in_one_line(error)}") from error

    def run(self, names: list[str], feeds: Mapping[str, Array]) -> Sequence[Any]:
        try:
            result: Sequence[Any] = self._session.run(names, dict(feeds))
        except MemoryError:
            raise
        except Exception as error:
            raise EvaluationError(f"onnxruntime cannot compute the model: {in_one_line(error)}") from error
        return result


class _WithReference:
    def __init__(self, model: onnx.ModelProto, folder: str) -> None:
        try:
            if has_external_data(model):
                copy = onnx.ModelProto()
                copy.CopyFrom(model)
                load_external_data_for_model(copy, folder)
                model = copy
            self._evaluator = evaluator(model)
        except MemoryError:
            raise
        except Exception as error:
            raise EvaluationError(f"onnx's evaluator refuses the model: {in_one_line(error)}") from error

    def run(self, names: list[str], feeds: Mapping[str, Array]) -> Sequence[Any]:
        try:
            with np.errstate(all="ignore"):
                result = list(self._evaluator.run(names, dict(feeds)))
        except MemoryError:
            raise
        except Exception as error:
            reason = f"{type(error).__name__}: {in_one_line(error)}"
            raise EvaluationError(f"onnx's evaluator cannot compute the model: {reason}") from error
        return result


def _with_outputs(model: onnx.ModelProto, names: Sequence[str]) -> bytes:
    """The model's bytes with these outputs, without copying its weights. The output list is restored afterwards."""
    graph = model.graph
    declared = {value.name for value in graph.output}
    kept = len(graph.output)
    graph.output.extend(onnx.ValueInfoProto(name=name) for name in names if name not in declared)
    try:
        content: bytes = model.SerializeToString()
    finally:
        del graph.output[kept:]
    return content


def in_one_line(error: BaseException) -> str:
    """The message of an evaluator, shortened."""
    text = " ".join(str(error).split())
    return text if len(text) <= _LONGEST_REASON else text[:_LONGEST_REASON] + " ..."
