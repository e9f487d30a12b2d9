"""`auto_pad` of a `Conv`, `MaxPool` or `AveragePool` -> explicit `pads`, which transformations read.

SAME keeps n = ceil(length / stride) elements. It pads (n - 1) * stride + (kernel - 1) * dilation + 1 - length, half of
that on either side, and the odd one after the data (UPPER) or before it (LOWER). VALID pads nothing.
"""

from __future__ import annotations

from onnx import NodeProto, TensorProto, TypeProto, helper

from onnxgraft.preparation.workpiece import Workpiece, input_of, is_standard, known_lengths, remove_at

_OPERATORS = frozenset({"Conv", "MaxPool", "AveragePool"})
_VALID, _UPPER, _LOWER = b"VALID", b"SAME_UPPER", b"SAME_LOWER"


def write_pads(workpiece: Workpiece) -> int:
    """Writes out the pads whose numbers are known: from the lengths of the input's axes, or with stride 1 without them.

    Two cases stay as they are, since runtimes do not agree on them: a pool that rounds its output up (`ceil_mode`) or
    has dilations, and a kernel so much smaller than its stride that the sum above is negative.
    """
    nodes = [node for node in workpiece.graph.node if _mode(node) is not None]
    if not nodes:
        return 0
    types = workpiece.types()
    weights = {tensor.name: tensor for tensor in workpiece.graph.initializer}
    changed = 0
    for node in nodes:
        pads = _pads(node, weights.get(input_of(node, 1)), types.get(input_of(node, 0)))
        if pads is not None:
            old = (k for k, attribute in enumerate(node.attribute) if attribute.name in {"auto_pad", "pads"})
            remove_at(node.attribute, old)
            node.attribute.append(helper.make_attribute("pads", pads))
            changed += 1
    return changed


def _mode(node: NodeProto) -> bytes | None:
    """The value of `auto_pad`, if it is one that can be written out."""
    if node.op_type not in _OPERATORS or not is_standard(node, node.op_type):
        return None
    rounds_up = any(attribute.name == "ceil_mode" and attribute.i for attribute in node.attribute)
    mode = next((attribute.s for attribute in node.attribute if attribute.name == "auto_pad"), b"")
    return mode if mode in {_VALID, _UPPER, _LOWER} and not rounds_up else None


def _pads(node: NodeProto, weight: TensorProto | None, data: TypeProto.Tensor | None) -> list[int] | None:
    lists = {attribute.name: list(attribute.ints) for attribute in node.attribute}
    kernel = lists.get("kernel_shape") or (list(weight.dims)[2:] if weight is not None else [])
    strides = lists.get("strides") or [1] * len(kernel)
    dilations = lists.get("dilations") or [1] * len(kernel)
    lengths = known_lengths(data) or [None] * (2 + len(kernel))
    if not kernel or {len(kernel)} != {len(strides), len(dilations), len(lengths) - 2} or min(strides) < 1:
        return None
    mode = _mode(node)
    if mode == _VALID:
        return [0] * (2 * len(kernel))
    if node.op_type != "Conv" and any(dilation != 1 for dilation in dilations):
        return None
    begins, ends = [], []
    for length, size, stride, dilation in zip(lengths[2:], kernel, strides, dilations, strict=True):
        total = _total(length, (size - 1) * dilation + 1, stride)
        if total is None:
            return None
        smaller, larger = total // 2, total - total // 2
        begins.append(smaller if mode == _UPPER else larger)
        ends.append(larger if mode == _UPPER else smaller)
    return begins + ends


def _total(length: int | None, reach: int, stride: int) -> int | None:
    if stride == 1:
        return reach - 1
    if length is None:
        return None
    total = (-(-length // stride) - 1) * stride + reach - length
    return total if total >= 0 else None
