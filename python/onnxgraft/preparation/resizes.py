"""`Resize`: the inputs that patterns name.

- An omitted region or scales -> an initializer without elements, which means the same.
- sizes = Concat(Slice(Shape(x)), [h, w]) -> Concat(Slice(Shape(x)), [h], [w]), the form of `simplify_shape_v2`.
"""

from __future__ import annotations

from onnx import NodeProto, TensorProto, helper

from onnxgraft.preparation.workpiece import Workpiece, input_of, is_standard

_OPTIONAL_INPUTS = {1: "roi", 2: "scales"}
_SIZES = 3


def fill_resize_inputs(workpiece: Workpiece) -> int:
    """Fills in front of the last given input, in the operator's form with a region (operator set 11 and later).

    An omitted `sizes` stays omitted, since nothing follows it. A `Resize` that crops by its region needs a real one.
    """
    fresh = workpiece.fresh_names()
    made: dict[int, str] = {}
    filled = 0
    for node in workpiece.graph.node:
        if not is_standard(node, "Resize") or _crops(node):
            continue
        given = max((position for position, name in enumerate(node.input) if name), default=0)
        omitted = [position for position in _OPTIONAL_INPUTS if position < given and not node.input[position]]
        for position in omitted:
            if position not in made:
                made[position] = fresh(f"empty_{_OPTIONAL_INPUTS[position]}")
                workpiece.add(helper.make_tensor(made[position], TensorProto.FLOAT, [0], []))
            node.input[position] = made[position]
        filled += bool(omitted)
    return filled


def split_resize_sizes(workpiece: Workpiece) -> int:
    """Splits the constant height and width behind a sliced shape into two constants of one element."""
    graph = workpiece.graph
    if not any(is_standard(node, "Resize") for node in graph.node):
        return 0
    constants = workpiece.constants()
    producers = {name: node for node in graph.node for name in node.output if name}
    fresh = workpiece.fresh_names()
    parts: dict[str, tuple[str, str]] = {}
    changed = 0
    for node in graph.node:
        joined = producers.get(input_of(node, _SIZES))
        if not is_standard(node, "Resize") or joined is None or not _joins_shape(joined, producers):
            continue
        name = joined.input[1]
        if name not in parts:
            tensor = constants.get(name)
            array = workpiece.values(tensor) if tensor is not None and list(tensor.dims) == [2] else None
            if array is None:
                continue
            parts[name] = (fresh(f"{name}_height"), fresh(f"{name}_width"))
            for index, part in enumerate(parts[name]):
                workpiece.add_array(array[index : index + 1], part)
        joined.input[1:] = parts[name]
        changed += 1
    workpiece.drop_unread(parts)
    return changed


def _crops(node: NodeProto) -> bool:
    return any(a.name == "coordinate_transformation_mode" and a.s == b"tf_crop_and_resize" for a in node.attribute)


def _joins_shape(node: NodeProto, producers: dict[str, NodeProto]) -> bool:
    """Whether a node is `Concat(Slice(Shape(x)), c)`."""
    if not is_standard(node, "Concat") or len(node.input) != 2:
        return False
    sliced = producers.get(input_of(node, 0))
    if sliced is None or not is_standard(sliced, "Slice"):
        return False
    shape = producers.get(input_of(sliced, 0))
    return shape is not None and is_standard(shape, "Shape")
