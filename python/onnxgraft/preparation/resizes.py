"""`Resize`: the inputs that patterns name.

- An omitted region or scales -> an initializer without elements, which means the same.
- sizes = Concat(Slice(Shape(x)), [h, w]) -> Concat(Slice(Shape(x)), [h], [w]), the form of `simplify_shape_v2`. The
  same for a `Shape` with a start and an end, which become the `Slice`.
"""

from __future__ import annotations

from collections.abc import Callable

from onnx import NodeProto, TensorProto, helper

from onnxgraft.preparation.workpiece import Workpiece, input_of, is_standard

_OPTIONAL_INPUTS = {1: "roi", 2: "scales"}
_SIZES = 3


def fill_resize_inputs(workpiece: Workpiece) -> int:
    """Fills the omitted inputs before the last given one, in the form with a region (operator set 11 and later).

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
    """Splits the constant height and width after a sliced shape into two constants of one element."""
    graph = workpiece.graph
    if not any(is_standard(node, "Resize") for node in graph.node):
        return 0
    constants = workpiece.constants()
    producers = {name: node for node in graph.node for name in node.output if name}
    fresh = workpiece.fresh_names()
    _slice_shapes(workpiece, producers, fresh)
    parts: dict[str, tuple[str, str]] = {}
    changed = 0
    for node in graph.node:
        joined = producers.get(input_of(node, _SIZES))
        if not is_standard(node, "Resize") or joined is None or not _joins_shape(joined, producers):
            continue
        name = joined.input[1]
        if name not in parts:
            tensor = constants.get(name)
            array = workpiece.values(tensor) if tensor is not None and _is_pair(tensor) else None
            if array is None:
                continue
            parts[name] = (fresh(f"{name}_height"), fresh(f"{name}_width"))
            for index, part in enumerate(parts[name]):
                workpiece.add_array(array[index : index + 1], part)
        joined.input[1:] = parts[name]
        changed += 1
    workpiece.drop_unread(parts)
    return changed


def _slice_shapes(workpiece: Workpiece, producers: dict[str, NodeProto], fresh: Callable[[str], str]) -> None:
    """Moves the start and end of a `Shape` for the sizes of a `Resize` into a `Slice`; the node becomes the `Slice`."""
    graph, constants = workpiece.graph, workpiece.constants()
    ready = set()
    for node in graph.node:
        joined = producers.get(input_of(node, _SIZES)) if is_standard(node, "Resize") else None
        if joined is None or not _joins(joined) or not _is_pair(constants.get(joined.input[1])):
            continue
        if _cuts(producers.get(joined.input[0])):
            ready.add(joined.input[0])
    places = [index for index, node in enumerate(graph.node) if not ready.isdisjoint(node.output)]
    for index in reversed(places):
        node = graph.node[index]
        name = fresh(f"{node.name}_whole") if node.name else ""
        whole = helper.make_node("Shape", node.input, [fresh(f"{node.output[0]}_whole")], name)
        bounds = {attribute.name: attribute.i for attribute in node.attribute}
        numbers = []
        for bound, number in (("start", bounds.get("start", 0)), ("end", bounds["end"]), ("axis", 0)):
            numbers.append(fresh(f"{node.output[0]}_{bound}"))
            workpiece.add(helper.make_tensor(numbers[-1], TensorProto.INT64, [1], [number]))
        node.op_type = "Slice"
        node.input[:] = [whole.output[0], *numbers]
        del node.attribute[:]
        graph.node.insert(index, whole)
        producers[whole.output[0]] = graph.node[index]
        producers[node.output[0]] = graph.node[index + 1]


def _is_pair(tensor: TensorProto | None) -> bool:
    return tensor is not None and list(tensor.dims) == [2]


def _cuts(node: NodeProto | None) -> bool:
    """Whether a node is a `Shape` of some of the first axes."""
    if node is None or not is_standard(node, "Shape"):
        return False
    bounds = {attribute.name: attribute.i for attribute in node.attribute}
    return 0 <= bounds.get("start", 0) < bounds.get("end", 0)


def _crops(node: NodeProto) -> bool:
    return any(a.name == "coordinate_transformation_mode" and a.s == b"tf_crop_and_resize" for a in node.attribute)


def _joins(node: NodeProto) -> bool:
    return is_standard(node, "Concat") and len(node.input) == 2


def _joins_shape(node: NodeProto, producers: dict[str, NodeProto]) -> bool:
    """Whether a node is `Concat(Slice(Shape(x)), c)`."""
    if not _joins(node):
        return False
    sliced = producers.get(input_of(node, 0))
    if sliced is None or not is_standard(sliced, "Slice"):
        return False
    shape = producers.get(input_of(sliced, 0))
    return shape is not None and is_standard(shape, "Shape")
