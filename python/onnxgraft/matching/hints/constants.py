"""Hints about an input that must be an initializer and is not. `miss.tensor` is the tensor of that input."""

from __future__ import annotations

from onnx import NodeProto

from onnxgraft.graph.surroundings import Surroundings
from onnxgraft.matching.hints.miss import Miss


def constant_node(miss: Miss) -> str | None:
    """A `Constant` node holds the value."""
    if miss.writer is None or miss.writer.op_type != "Constant":
        return None
    return f"{_what(miss)} is the output of a Constant node: prepare turns it into an initializer (make_initializers)"


def identity(miss: Miss) -> str | None:
    """One or several `Identity` nodes separate the two."""
    if miss.writer is None or miss.writer.op_type != "Identity":
        return None
    source, node = miss.tensor, miss.writer
    while node is not None and node.op_type == "Identity":
        source = node.input[0]
        node = miss.around.writer.get(source)  # type: ignore[assignment]
    if not miss.around.is_constant(source):
        return None
    return f"{_what(miss)} is an Identity of '{source}': prepare makes the node read '{source}' (resolve_identities)"


def transpose(miss: Miss) -> str | None:
    """Exports without constant folding transpose a weight in the graph."""
    node = miss.writer
    if node is None or node.op_type != "Transpose" or not miss.around.is_constant(node.input[0]):
        return None
    return f"{_what(miss)} is a Transpose of the constant '{node.input[0]}': prepare folds it (fold_transposes)"


def dequantized(miss: Miss) -> str | None:
    """The model was already quantized by ONNX's own operators."""
    if miss.writer is None or miss.writer.op_type != "DequantizeLinear":
        return None
    return f"already quantized: {_what(miss)} is dequantized by a DequantizeLinear; start from the float model"


def sizes_from_shape(miss: Miss) -> str | None:
    """A `Resize` computes its sizes from the shape of another tensor."""
    node = miss.writer
    if node is None or miss.node is None or miss.node.op_type != "Resize" or node.op_type != "Concat":
        return None
    parts = [miss.around.writer.get(name) for name in node.input]
    if not any(part is not None and part.op_type in ("Slice", "Gather", "Unsqueeze", "Cast") for part in parts):
        return None
    return (
        f"the sizes, '{miss.tensor}', are computed from a shape: if height and width are constants there, prepare "
        "(split_resize_sizes) and then simplify_shape_v2 make it an initializer"
    )


def computed_from_constants(miss: Miss) -> str | None:
    """The tensor is computed from constants only."""
    if miss.writer is None or not _is_constant(miss.around, miss.writer):
        return None
    return (
        f"{_what(miss)} is computed from constants by {_article(miss.writer.op_type)}: export with constant folding, "
        "or fold it first"
    )


def fed_from_outside(miss: Miss) -> str | None:
    """A graph input is not a constant, and patterns do not match a sparse initializer."""
    if miss.tensor in {sparse.values.name for sparse in miss.around.graph.sparse_initializer}:
        return f"{_what(miss)} is a sparse initializer: store it as a dense one"
    if miss.tensor not in miss.around.inputs:
        return None
    return f"{_what(miss)} is an input of the graph without a value: export the model with its weights"


def both_computed(miss: Miss) -> str | None:
    """A product of two computed matrices, as in attention, has no weight."""
    node = miss.node
    if node is None or node.op_type != "MatMul" or any(miss.around.is_constant(name) for name in node.input):
        return None
    return "both inputs of this MatMul are computed (as in attention): it has no weight"


def _what(miss: Miss) -> str:
    names = {("Conv", 1), ("Gemm", 1), ("MatMul", 1)}, {("Conv", 2), ("Gemm", 2)}
    place = (miss.wanted.op, miss.slot)
    kind = "the weight" if place in names[0] else "the bias" if place in names[1] else "the input"
    return f"{kind} '{miss.tensor}'"


def _article(op: str) -> str:
    return f"{'an' if op[0] in 'AEIOU' else 'a'} {op}"


def _is_constant(around: Surroundings, node: NodeProto) -> bool:
    """True if the node is computed from constants only; False if the chain is too long to check."""
    todo, seen = [node], 0
    while todo:
        seen += 1
        for name in filter(None, todo.pop().input):
            if around.is_constant(name):
                continue
            writer = around.writer.get(name)
            if writer is None or seen > 100:
                return False
            todo.append(writer)
    return True
