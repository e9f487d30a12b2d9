"""The graph of a report as text, which an editor shows, and back as a model that can be rewritten."""

from __future__ import annotations

import os
import zipfile
from collections.abc import Iterator
from pathlib import Path

import numpy as np
from google.protobuf import text_format
from google.protobuf.message import Message
from onnx import ModelProto, TensorProto, helper, numpy_helper

from onnxgraft.errors import ModelFileError

NAME = "graph.txt"


def graph_text(model: ModelProto) -> str:
    """A model without values as protobuf's text."""
    return str(text_format.MessageToString(model))


def read_graph(report: str | os.PathLike[str]) -> ModelProto:
    """The model of a report, with made-up values: ones for floats, otherwise zeros.

    Transformations, preparation and shape inference work on it as on any model; its outputs mean nothing.

    Args:
        report: The output of `onnxgraft report-bug`: a `.zip` file or a folder.

    Raises:
        ModelFileError: It is not such a report.
    """
    path = Path(report)
    try:
        if path.is_dir():
            text = (path / NAME).read_text(encoding="utf-8")
        else:
            with zipfile.ZipFile(path) as archive:
                text = archive.read(NAME).decode()
        model = text_format.Parse(text, ModelProto())
    except (OSError, KeyError, ValueError, zipfile.BadZipFile, text_format.ParseError) as error:
        raise ModelFileError(f"'{path}' is not a bug report with a graph: {error}") from None
    if not model.HasField("graph"):
        raise ModelFileError(f"'{path}' has no graph: the model could not be read when the report was made")
    for tensor in list(_tensors(model)):
        if not tensor.int64_data:
            _fill(tensor)
    return model


def _fill(tensor: TensorProto) -> None:
    if tensor.data_type == TensorProto.STRING:
        tensor.string_data.extend([b""] * int(np.prod(tensor.dims, dtype=np.int64)))
        return
    dtype = helper.tensor_dtype_to_np_dtype(tensor.data_type)
    is_float = dtype.kind in "fc" or tensor.data_type == TensorProto.BFLOAT16
    values = np.full(tuple(tensor.dims), 1 if is_float else 0, dtype)
    if dtype.kind in "fciub" and tensor.data_type != TensorProto.BFLOAT16:
        tensor.CopyFrom(numpy_helper.from_array(values, tensor.name))
    else:
        filled = helper.make_tensor(tensor.name, tensor.data_type, tensor.dims, values.astype(np.float32).ravel())
        tensor.CopyFrom(filled)


def _tensors(message: Message) -> Iterator[TensorProto]:
    """All tensors in a message, at any depth."""
    for _, value in message.ListFields():
        if isinstance(value, TensorProto):
            yield value
        elif isinstance(value, Message):
            yield from _tensors(value)
        elif not isinstance(value, str | bytes | int | float):
            for inner in value:
                if isinstance(inner, TensorProto):
                    yield inner
                elif isinstance(inner, Message):
                    yield from _tensors(inner)
