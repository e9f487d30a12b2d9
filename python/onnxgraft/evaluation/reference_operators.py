"""Correct versions of operators that onnx's reference evaluator gets wrong."""

from __future__ import annotations

from typing import Any

import numpy as np
import numpy.typing as npt
import onnx
from onnx.reference import ReferenceEvaluator
from onnx.reference.op_run import OpRun
from onnx.reference.ops import op_conv, op_conv_transpose, op_resize

Array = npt.NDArray[Any]

# From this operator set on, the evaluator distinguishes training from inference.
_FIRST_WITH_TRAINING_MODE = 14


class BatchNormalization(OpRun):
    """For inference: y = (x - mean) / sqrt(variance + epsilon) * scale + shift, channels along axis 1.

    For operator sets 7 to 13, the evaluator uses the statistics of x itself, as in training.
    """

    op_domain = ""

    def _run(self, x: Array, *parameters: Array, epsilon: float | None = None, **_: Any) -> tuple[Array]:
        along = (1, -1) + (1,) * (x.ndim - 2)
        scale, shift, mean, variance = (parameter.reshape(along) for parameter in parameters)
        factor = scale / np.sqrt(variance + (1e-5 if epsilon is None else epsilon))
        return (((x - mean) * factor + shift).astype(x.dtype),)


class Conv(op_conv.Conv):
    """Writes `auto_pad` out as pads for n = ceil(length / stride) elements: onnx 1.16 pads wrongly with a stride."""

    op_domain = ""

    def _run(self, x: Array, w: Array, b: Any = None, **options: Any) -> Any:  # type: ignore[override]
        mode = options.get("auto_pad")
        if mode in {"SAME_UPPER", "SAME_LOWER", "VALID"}:
            strides, dilations = (options[name] or [1] * (x.ndim - 2) for name in ("strides", "dilations"))
            steps = zip(x.shape[2:], w.shape[2:], strides, dilations, strict=True)
            needed = [(-(-n // step) - 1) * step + (k - 1) * dilation + 1 - n for n, k, step, dilation in steps]
            totals = [0 if mode == "VALID" else max(0, total) for total in needed]
            smaller, larger = [total // 2 for total in totals], [total - total // 2 for total in totals]
            pads = smaller + larger if mode == "SAME_UPPER" else larger + smaller
            options |= {"auto_pad": "NOTSET", "pads": pads}
        compute: Any = super()._run
        return compute(x, w, b, **options)


class ConvTranspose(op_conv_transpose.ConvTranspose):
    """Group by group: the evaluator's own version mixes up several groups."""

    op_domain = ""

    def _run(self, x: Array, w: Array, b: Any = None, group: Any = None, **options: Any) -> Any:  # type: ignore[override]
        groups = group or 1
        one_group: Any = super()._run
        biases = [None] * groups if b is None else np.split(b, groups)
        parts = zip(np.split(x, groups, 1), np.split(w, groups), biases, strict=True)
        return (np.concatenate([one_group(*part, group=1, **options)[0] for part in parts], 1),)


class Resize(op_resize.Resize):
    """The evaluator of a model, with these operators if it needs them."""

    op_domain = ""

    def _run(self, x: Array, *inputs: Array | None, **options: Any) -> Any:  # type: ignore[override]
        compute: Any = super()._run
        given = [None if tensor is None or not tensor.size else tensor for tensor in (*inputs, *[None] * 3)][:3]
        return compute(x, *given, **options)


def evaluator(model: onnx.ModelProto) -> ReferenceEvaluator:
    """The evaluator of a model, with these operators if it needs them."""
    version = max((entry.version for entry in model.opset_import if entry.domain in {"", "ai.onnx"}), default=0)
    training = any(node.op_type == "BatchNormalization" and len(node.output) > 1 for node in model.graph.node)
    normalization = [] if version >= _FIRST_WITH_TRAINING_MODE or training else [BatchNormalization]
    return ReferenceEvaluator(model, new_ops=[Conv, ConvTranspose, Resize, *normalization])
