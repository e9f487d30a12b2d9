"""A node that reads constants only -> an initializer with its output.

Exporters compute on weights what they could have stored: a `Cast` of half-precision weights, a `DequantizeLinear` of
INT8 ones, a `Mul` by the gain of a weight normalization, a `Reshape` for a `Conv` that was a matrix product. Patterns
expect an initializer there. onnx's own evaluator computes each node.
"""

from __future__ import annotations

import logging
from collections.abc import Mapping, Sequence

import numpy as np
from onnx import NodeProto, TensorProto, TypeProto, helper
from onnx.reference import ReferenceEvaluator

from onnxgraft.graph.tensor_values import Array
from onnxgraft.preparation.workpiece import Workpiece, input_of, is_standard

LOG = logging.getLogger(__name__)

# Operators that exporters apply to weights. All are exact, or rounded once, in every runtime alike.
_FOLDED = frozenset(
    {"Add", "Cast", "CastLike", "Clip", "DequantizeLinear", "Div", "Expand", "Flatten", "Mul", "QuantizeLinear",
     "Reshape", "Shape", "Squeeze", "Sub", "Transpose", "Unsqueeze"}
)  # fmt: skip
# The largest result of an `Expand`: a bias from one number for all channels, not a whole weight.
_LARGEST_EXPANDED = 2**16

# onnx's evaluator knows these two from this operator set on; earlier forms mean the same here.
_QUANTIZED = frozenset({"DequantizeLinear", "QuantizeLinear"})
_QUANTIZED_SINCE = 19

# The smallest value of an integer type, and the first one beyond its largest.
_LIMITS = {
    getattr(TensorProto, f"{sign}INT{bits}"): (0.0, 2.0**bits) if sign else (-(2.0 ** (bits - 1)), 2.0 ** (bits - 1))
    for sign in ("", "U")
    for bits in (8, 16, 32, 64)
}


def fold_constants(workpiece: Workpiece) -> int:
    """Folds in the order of the nodes, so that chains fold as a whole.

    A node stays if the graph returns its output, if its values cannot be read, or if its result has more elements than
    the largest of its inputs (`Expand`: than a bias may have). An initializer that others read too stays for them.
    """
    graph, constants, opset = workpiece.graph, workpiece.constants(), workpiece.opset
    if not opset:
        return 0
    results = {value.name for value in graph.output}
    folded: dict[int, str] = {}
    read: set[str] = set()
    for index, node in enumerate(graph.node):
        if node.op_type not in _FOLDED or not is_standard(node, node.op_type) or len(node.output) != 1:
            continue
        value = None if node.output[0] in results else _value(node, workpiece, constants, opset)
        if value is None:
            continue
        workpiece.add_array(value, node.output[0])
        constants[node.output[0]] = graph.initializer[-1]
        folded[index] = node.output[0]
        read.update(node.input)
    if folded:
        workpiece.remove_nodes(folded)
        workpiece.forget_values(set(folded.values()))
        workpiece.drop_unread(read)
        workpiece.infer_again()
    return len(folded)


def _value(node: NodeProto, workpiece: Workpiece, constants: Mapping[str, TensorProto], opset: int) -> Array | None:
    """The output of the node, if it is known without a value for the graph's inputs."""
    if node.op_type == "CastLike":
        like = input_of(node, 1)
        if input_of(node, 0) not in constants:
            return None
        kind = constants[like].data_type if like in constants else workpiece.element_type(like)
        if kind == TensorProto.UNDEFINED:
            return None
        node = helper.make_node("Cast", node.input[:1], node.output, to=kind)
    names = [name for name in node.input if name]
    if not names or not all(name in constants for name in names):
        return None
    if node.op_type == "Shape":
        bounds = {attribute.name: attribute.i for attribute in node.attribute}
        return np.array(constants[names[0]].dims, np.int64)[bounds.get("start") : bounds.get("end")]
    return _computed(node, [workpiece.values(constants[name]) for name in names], opset)


def _computed(node: NodeProto, values: Sequence[Array | None], opset: int) -> Array | None:
    """The output of the node; None if it is not known, or is not a plain array of numbers."""
    arrays = [value for value in values if value is not None]
    if len(arrays) < len(values) or not _same_everywhere(node, arrays):
        return None
    names = dict.fromkeys(name for name in node.input if name)
    feeds = dict(zip((name for name in node.input if name), arrays, strict=True))
    graph = helper.make_graph(
        [node],
        "one node",
        [helper.make_value_info(name, TypeProto()) for name in names],
        [helper.make_value_info(node.output[0], TypeProto())],
    )
    version = max(opset, _QUANTIZED_SINCE) if node.op_type in _QUANTIZED else opset
    model = helper.make_model(graph, opset_imports=[helper.make_opsetid("", version)])
    try:
        with np.errstate(all="ignore"):
            value = np.asarray(next(iter(ReferenceEvaluator(model).run(None, feeds))))
    except Exception as error:  # any error of the evaluator: the node stays as it is
        LOG.warning("%s '%s' is not folded: %s", node.op_type, node.output[0], " ".join(str(error).split()))
        return None
    most = _LARGEST_EXPANDED if node.op_type == "Expand" else max(array.size for array in arrays)
    if value.dtype.kind not in "fiub" or value.size > most:
        return None
    return value


def _same_everywhere(node: NodeProto, arrays: Sequence[Array]) -> bool:
    """Whether the standard defines the result: it does not for a quotient of integers, nor for a cast out of range."""
    kind = arrays[0].dtype.kind
    if node.op_type == "Div":
        return kind == "f"
    limits = _LIMITS.get(next((a.i for a in node.attribute if a.name == "to"), 0))
    if node.op_type != "Cast" or kind != "f" or limits is None:
        return True
    values = np.trunc(arrays[0].astype(np.float64))
    return bool(np.isfinite(values).all() and (values >= limits[0]).all() and (values < limits[1]).all())
