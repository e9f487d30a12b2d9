"""What two models reveal, without being computed, about why their outputs cannot agree."""

from __future__ import annotations

from collections import Counter
from collections.abc import Callable
from dataclasses import dataclass

import onnx

from onnxgraft.tensor_types.quantized_values import INTEGER_OPERATORS

_EXAMPLES = 3


@dataclass(frozen=True)
class Outline:
    """The facts that the notes are based on."""

    operators: Counter[str]
    int8_weights: dict[str, str]  # label of the node -> the weight that it reads

    @staticmethod
    def of(graph: onnx.GraphProto) -> Outline:
        """Reads a graph."""
        narrow = {tensor.name for tensor in graph.initializer if tensor.data_type == onnx.TensorProto.INT8}
        weights = {
            f"{node.op_type} '{node.name or node.output[0]}'": name
            for node in graph.node
            if node.op_type in INTEGER_OPERATORS
            for name in node.input
            if name in narrow
        }
        return Outline(Counter(node.op_type for node in graph.node), weights)


def _random_weights(before: Outline, after: Outline) -> str | None:
    new = [label for label in after.int8_weights if label not in before.int8_weights]
    if not new or before.int8_weights:
        return None
    more = f" and {len(new) - _EXAMPLES} more" if len(new) > _EXAMPLES else ""
    return (
        f"the model after has INT8 weights where the one before has none ({', '.join(new[:_EXAMPLES])}{more}): the "
        "weights were drawn at random, or rounded to 8 bits if it was filled from a calibration: then `--sqnr` says "
        "how close it is"
    )


def _lost_normalization(before: Outline, after: Outline) -> str | None:
    lost = before.operators["BatchNormalization"] - after.operators["BatchNormalization"]
    if lost <= 0 or not before.int8_weights:
        return None
    return (
        f"{lost} BatchNormalization nodes are gone from a quantized model: fuse_bn_quant draws the biases that "
        "replace them at random, so outputs cannot agree"
    )


def _split_concat(before: Outline, after: Outline) -> str | None:
    grown = after.operators["Conv"] - before.operators["Conv"]
    lost = before.operators["Concat"] - after.operators["Concat"]
    if lost <= 0 or grown <= 0:
        return None
    return (
        f"{lost} Concat nodes are gone and {grown} Conv nodes are new: delete_concat, unless it is finished, gives "
        "both branches the whole weight and adds the bias twice, so outputs cannot agree"
    )


def _no_more_rounding(before: Outline, after: Outline) -> str | None:
    lost = [label for label in before.int8_weights if label not in after.int8_weights]
    if not lost or before.operators["TesselQuant"] <= after.operators["TesselQuant"]:
        return None
    more = f" and {len(lost) - _EXAMPLES} more" if len(lost) > _EXAMPLES else ""
    return (
        f"{', '.join(lost[:_EXAMPLES])}{more} no longer read INT8 weights: change_gap_conv removes the quantize nodes "
        "before them, and with them their rounding and clipping, so outputs agree only without rounding"
    )


_RULES: tuple[Callable[[Outline, Outline], str | None], ...] = (
    _random_weights,
    _lost_normalization,
    _split_concat,
    _no_more_rounding,
)


def notes_on_failure(before: onnx.GraphProto, after: onnx.GraphProto) -> list[str]:
    """The transformations that left traces and change the function by definition."""
    first, second = Outline.of(before), Outline.of(after)
    return [note for rule in _RULES if (note := rule(first, second)) is not None]


def are_quantized(*graphs: onnx.GraphProto) -> bool:
    """Whether each graph has quantize nodes."""
    return all(any(node.op_type == "TesselQuant" for node in graph.node) for graph in graphs)
