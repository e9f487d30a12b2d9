"""What the functions of the package accept as a model: the protobuf itself, a path, or an object that holds one."""

from __future__ import annotations

import os
from pathlib import Path
from typing import Any

import onnx

from onnxgraft.io.model_files import load

Readable = onnx.ModelProto | onnx.GraphProto | str | os.PathLike[str]


def opened(model: Any) -> onnx.ModelProto | onnx.GraphProto:
    """The model or graph to read.

    Args:
        model: A ModelProto or GraphProto, as it is; the path of a model; an object of another library with a
            `model_proto`.

    Raises:
        ModelFileError: The file cannot be read.
        TypeError: It is something else.
    """
    if isinstance(model, onnx.ModelProto | onnx.GraphProto):
        return model
    if isinstance(model, str | os.PathLike):
        return load(Path(model))
    held = getattr(model, "model_proto", None)
    if isinstance(held, onnx.ModelProto):
        return held
    raise TypeError(f"expected a ModelProto, a GraphProto or a path, not {type(model).__name__}")


def opened_model(model: Any) -> onnx.ModelProto:
    """Like `opened`, for callers that need a model.

    Raises:
        ModelFileError: The file cannot be read.
        TypeError: It is something else.
    """
    found = opened(model)
    if not isinstance(found, onnx.ModelProto):
        raise TypeError("expected a ModelProto or a path, not a GraphProto: it does not state its operator sets")
    return found


def folder_of(model: Any, folder: str | os.PathLike[str] | None) -> str | os.PathLike[str] | None:
    """Where external data is: the given folder, or that of the path."""
    if folder is None and isinstance(model, str | os.PathLike):
        return Path(model).parent
    return folder
