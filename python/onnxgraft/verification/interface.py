"""Whether two graphs have the same inputs and outputs, as far as comparing them needs it."""

from __future__ import annotations

from collections.abc import Mapping

import onnx
from onnx import helper

from onnxgraft.samples.random_values import Input


def input_problems(inputs: Mapping[str, Input], after: onnx.GraphProto) -> list[str]:
    """The reasons why inputs of one model do not fit the other; empty if they fit."""
    problems = []
    constants = {tensor.name for tensor in after.initializer}
    for value in after.input:
        if value.name in constants:
            continue
        tensor = value.type.tensor_type
        if value.name not in inputs:
            problems.append(f"the model after has an input '{value.name}' that the model before does not have")
            continue
        wanted = inputs[value.name]
        if helper.tensor_dtype_to_np_dtype(tensor.elem_type or onnx.TensorProto.FLOAT) != wanted.dtype:
            name = onnx.TensorProto.DataType.Name(tensor.elem_type).lower()
            problems.append(f"input '{value.name}' has type {wanted.dtype.name} before, {name} after")
        dims = [dim.dim_value for dim in tensor.shape.dim]
        fits = len(dims) == len(wanted.shape) and all(d in {0, s} for d, s in zip(dims, wanted.shape, strict=True))
        if tensor.HasField("shape") and not fits:
            shape = [dim.dim_param or dim.dim_value or "?" for dim in tensor.shape.dim]
            problems.append(
                f"input '{value.name}' is {wanted} before, but has shape [{','.join(map(str, shape))}] after"
            )
    return problems


def common_outputs(before: onnx.GraphProto, after: onnx.GraphProto) -> list[str]:
    """The outputs that both have."""
    names = {value.name for value in after.output}
    return list(dict.fromkeys(value.name for value in before.output if value.name in names))


def lost_outputs(before: onnx.GraphProto, after: onnx.GraphProto) -> list[str]:
    """A note for everything that keeps the outputs from being compared; each of them is a failure."""
    common = common_outputs(before, after)
    lost = [value.name for value in before.output if value.name not in common]
    notes = [f"the model after does not have the output '{name}'" for name in lost]
    return notes if notes or common else ["the models have no outputs to compare"]


def other_remarks(before: onnx.GraphProto, after: onnx.GraphProto) -> list[str]:
    """Differences that leave the outputs comparable."""
    outputs, inputs = {value.name for value in before.output}, {value.name for value in after.input}
    constants = {tensor.name for tensor in before.initializer}
    new = [value.name for value in after.output if value.name not in outputs]
    gone = [value.name for value in before.input if value.name not in inputs and value.name not in constants]
    return [f"the model after has another output '{name}', which is not compared" for name in new] + [
        f"the model after has no input '{name}'" for name in gone
    ]
