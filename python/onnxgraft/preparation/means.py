"""`ReduceMean` over the two spatial axes of an image that keeps them -> `GlobalAveragePool`.

The results differ only by the rounding of the sum.
"""

from __future__ import annotations

from onnx import NodeProto, TensorProto, TypeProto

from onnxgraft.preparation.workpiece import Workpiece, input_of, is_standard

_IMAGE_RANK = 4
_SPATIAL_AXES = [2, 3]
# The element types that GlobalAveragePool accepts in every operator set.
_ELEMENT_TYPES: set[int] = {TensorProto.FLOAT, TensorProto.FLOAT16, TensorProto.DOUBLE}


def pool_means(workpiece: Workpiece) -> int:
    """Converts those whose input is known to be an image of floats."""
    graph = workpiece.graph
    if not any(is_standard(node, "ReduceMean") for node in graph.node):
        return 0
    types, constants = workpiece.types(), workpiece.constants()
    axes_inputs = set()
    changed = 0
    for node in graph.node:
        if not is_standard(node, "ReduceMean") or not _is_image(types.get(input_of(node, 0))) or not _keeps(node):
            continue
        axes = next((list(a.ints) for a in node.attribute if a.name == "axes"), [])
        if input_of(node, 1) in constants:
            array = workpiece.values(constants[input_of(node, 1)])
            axes = [] if array is None else array.ravel().tolist()
        if sorted(axis % _IMAGE_RANK for axis in axes) == _SPATIAL_AXES:
            axes_inputs.update(node.input[1:])
            node.op_type = "GlobalAveragePool"
            del node.attribute[:]
            del node.input[1:]
            changed += 1
    workpiece.drop_unread(axes_inputs)
    return changed


def _keeps(node: NodeProto) -> bool:
    return all(attribute.i == 1 for attribute in node.attribute if attribute.name == "keepdims")


def _is_image(tensor: TypeProto.Tensor | None) -> bool:
    if tensor is None or not tensor.HasField("shape"):
        return False
    return tensor.elem_type in _ELEMENT_TYPES and len(tensor.shape.dim) == _IMAGE_RANK
