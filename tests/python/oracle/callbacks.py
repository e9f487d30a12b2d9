"""The effect of each transformation on an occurrence, in plain NumPy and protobuf calls.

A callback gets (graph, matched nodes, node mapping, links, names corrected in this `apply`) and returns whether it
accepts the occurrence. Written for reading; nothing is shared, cached or clever.
"""

from collections.abc import Callable, Iterable
from typing import Any

import numpy as np
import numpy.typing as npt
from onnx import AttributeProto, GraphProto, NodeProto, TensorProto, helper, numpy_helper

from .names import all_names

Array = npt.NDArray[Any]
Nodes = list[NodeProto]
Mapping = dict[int, int]
Links = dict[str, str]
Callback = Callable[[GraphProto, Nodes, Mapping, Links, set[str]], bool]


def record(graph: GraphProto, name: str) -> TensorProto:
    for tensor in graph.initializer:
        if tensor.name == name:
            return tensor
    raise ValueError(f"{name} is not an initializer")


def array(graph: GraphProto, name: str) -> Array:
    return np.asarray(numpy_helper.to_array(record(graph, name)))


def first(attributes: Iterable[AttributeProto], name: str) -> AttributeProto | None:
    return next((a for a in attributes if a.name == name), None)


def unpacked(words: Array) -> npt.NDArray[np.float32]:
    return words.astype(np.uint32).view(np.float32)


def packed(name: str, scales: Array) -> TensorProto:
    words = scales.view(np.uint32).astype(np.uint64)
    return helper.make_tensor(name, TensorProto.UINT64, words.shape, words.ravel())


def accept(graph: GraphProto, nodes: Nodes, mapping: Mapping, links: Links, updated: set[str]) -> bool:
    return True


def quantize(mode: str, bias: tuple[str, str], scale: str) -> Callback:
    def callback(graph: GraphProto, nodes: Nodes, mapping: Mapping, links: Links, updated: set[str]) -> bool:
        if record(graph, links["1"]).data_type == TensorProto.INT8:
            return False
        transposed = False
        if mode == "gemm":
            operator = graph.node[mapping[1]]
            flag = first(nodes[0].attribute, "transB")
            if flag is not None:
                transposed = flag.i != 0
                operator.attribute.remove(flag)
            operator.attribute.append(helper.make_attribute("transB", 0))
        parameters = [helper.make_attribute("scale", 1.0), helper.make_attribute("offset", 0.0)]
        graph.node[mapping[0]].attribute.extend(parameters)
        old = array(graph, links["1"])
        weight = np.random.randint(-128, 127, size=old.shape, dtype=np.int8)
        new = [numpy_helper.from_array(weight.T if transposed else weight, links["101"])]
        if bias[0] in links:
            shape = array(graph, links[bias[0]]).shape
            drawn = np.random.randint(-18, 13, size=shape, dtype=np.int32)
            new.append(numpy_helper.from_array(drawn, links[bias[1]]))
        count = old.shape[0] if mode == "conv" else 1
        new.append(packed(links[scale], np.random.rand(count).astype(np.float32)))
        graph.initializer.extend(new)
        return True

    return callback


def fold_normalization(graph: GraphProto, nodes: Nodes, mapping: Mapping, links: Links, updated: set[str]) -> bool:
    channels = array(graph, links["2"]).shape[0]
    words = np.frombuffer(np.random.rand(channels // 2).tobytes(), np.int32)
    graph.initializer.extend(numpy_helper.from_array(words, links[i]) for i in ("101", "103"))
    return True


def parameters_agree(graph: GraphProto, nodes: Nodes, mapping: Mapping, links: Links, updated: set[str]) -> bool:
    for name in ("scale", "offset"):
        values = [first(node.attribute, name) for node in (nodes[0], nodes[2])]
        if None in values or abs(values[0].f - values[1].f) > 0.001:  # type: ignore[union-attr]
            return False
    return True


def update(graph: GraphProto, nodes: Nodes, mapping: Mapping, links: Links, updated: set[str]) -> bool:
    before, after = (first(node.attribute, "scale") for node in (nodes[0], nodes[4]))
    ratio = (1.0 if after is None else after.f) / (1.0 if before is None else before.f)
    bias_name, scale_name = graph.node[mapping[1]].input[2], graph.node[mapping[2]].input[1]
    bias = array(graph, bias_name).astype(np.int32)
    scales = unpacked(array(graph, scale_name))
    new_bias = numpy_helper.from_array((bias.astype(np.float32) * ratio).astype(np.int32), bias_name)
    new_scales = packed(scale_name, (scales / ratio).astype(np.float32))
    old = [record(graph, bias_name), record(graph, scale_name)]
    for tensor in old:
        graph.initializer.remove(tensor)
    graph.initializer.extend([new_bias, new_scales])
    return True


def _offset(node: NodeProto) -> float:
    offset = first(node.attribute, "offset")
    if offset is None or offset.type not in (AttributeProto.FLOAT, AttributeProto.INT):
        return 0.0
    return offset.f if offset.type == AttributeProto.FLOAT else float(offset.i)


def pull_up(graph: GraphProto, nodes: Nodes, mapping: Mapping, links: Links, updated: set[str]) -> bool:
    convs = [node for node in graph.node if node.op_type == "Conv" and links["99"] in node.input]
    pads = [first(node.attribute, "pads") for node in convs]
    if any(value != 0 for attribute in pads if attribute is not None for value in attribute.ints):
        return False
    offset = _offset(nodes[-1])
    weights = [array(graph, name) for name in [node.input[1] for node in convs]]
    has_bias = [len(node.input) > 2 and node.input[2] != "" for node in convs]
    biases = [array(graph, node.input[2]) if has else None for node, has in zip(convs, has_bias, strict=True)]
    # First everything is computed, so that an error leaves the graph alone.
    new: list[Array | None] = []
    corrected = set(updated)
    for node, weight, bias in zip(convs, weights, biases, strict=True):
        delta = (weight.sum(axis=tuple(range(1, weight.ndim))) * offset).astype(np.int32)
        if bias is None:
            new.append(-delta)
        elif node.input[2] in corrected:
            new.append(None)
        else:
            corrected.add(node.input[2])
            new.append((bias - delta).astype(bias.dtype))
    for node, has, value in zip(convs, has_bias, new, strict=True):
        if value is None:
            continue
        if has:
            graph.initializer.remove(record(graph, node.input[2]))
            graph.initializer.append(numpy_helper.from_array(value, node.input[2]))
            updated.add(node.input[2])
        else:
            _give_bias(graph, node, value, updated)
    return True


def _give_bias(graph: GraphProto, node: NodeProto, value: Array, updated: set[str]) -> None:
    name = f"{node.input[1]}_bias"
    if name in all_names(graph) and not _shared(graph, name, value, updated):
        name = next(fresh for k in range(10**6) if (fresh := f"{name}_fresh_{k}") not in all_names(graph))
    if name not in updated:
        graph.initializer.append(numpy_helper.from_array(value, name))
        updated.add(name)
    inputs = [*node.input[:2], name, *node.input[3:]]
    del node.input[:]
    node.input.extend(inputs)


def _shared(graph: GraphProto, name: str, value: Array, updated: set[str]) -> bool:
    if name not in updated or name not in {tensor.name for tensor in graph.initializer}:
        return False
    there = array(graph, name)
    return there.dtype == value.dtype and np.array_equal(there, value)


def pull_up_v10(graph: GraphProto, nodes: Nodes, mapping: Mapping, links: Links, updated: set[str]) -> bool:
    for name in nodes[0].input:
        writer = next((node for node in graph.node if name in node.output), None)
        if writer is None or writer.op_type != "Mul":
            return False
        dequantized = {o for node in graph.node if node.op_type == "TesselDequant" for o in node.output}
        if dequantized.isdisjoint(writer.input):
            return False
    return pull_up(graph, nodes, mapping, links, updated)


def resize(graph: GraphProto, nodes: Nodes, mapping: Mapping, links: Links, updated: set[str]) -> bool:
    if not pull_up(graph, nodes, mapping, {**links, "99": links["8"]}, updated):
        return False
    old = nodes[0].attribute
    coordinates = first(old, "coordinate_transformation_mode")
    rounding = first(old, "nearest_mode")
    graph.node[mapping[1]].attribute.extend(
        [
            coordinates or helper.make_attribute("coordinate_transformation_mode", "half_pixel"),
            helper.make_attribute("mode", "nearest"),
            rounding or helper.make_attribute("nearest_mode", "round_prefer_floor"),
        ]
    )
    return True


def constant_sizes(graph: GraphProto, nodes: Nodes, mapping: Mapping, links: Links, updated: set[str]) -> bool:
    entry = next((value for value in graph.value_info if value.name == links["1"]), None)
    shape = [] if entry is None else [d.dim_value for d in entry.type.tensor_type.shape.dim]
    if len(shape) < 2:
        return False
    height, width = array(graph, links["8"]), array(graph, links["9"])
    sizes = np.array([-1, shape[1], height.item(), width.item()], np.int64)
    graph.initializer.append(numpy_helper.from_array(sizes, links["101"]))
    return True


def unquantize_block(graph: GraphProto, nodes: Nodes, mapping: Mapping, links: Links, updated: set[str]) -> bool:
    for node in (nodes[2], nodes[-3]):
        group = first(node.attribute, "group")
        if group is None or group.i != 1:
            return False
    new = []
    for front, ids in ((1, "3 4 6 100 101"), (5 if len(nodes) == 9 else 6, "11 12 14 102 103")):
        weight, bias, words, new_weight, new_bias = (links[i] for i in ids.split())
        scales = unpacked(array(graph, words)).ravel()
        scale, offset = (first(nodes[front].attribute, name) for name in ("scale", "offset"))
        if scale is None or offset is None:
            return False
        divisor = (1 / scales) / scale.f
        values = array(graph, weight).astype(np.float32)
        if values.shape[2:] != (1, 1):
            return False
        new.append(numpy_helper.from_array(values / divisor[:, None, None, None], new_weight))
        scaled_bias = array(graph, bias).astype(np.float32)
        scaled_bias *= scales
        new.append(numpy_helper.from_array(scaled_bias, new_bias))
    graph.initializer.extend(new)
    return True


CALLBACKS: dict[str, Callback] = {
    "replace_quant_any": accept,
    "replace_quant": parameters_agree,
    "update_tesselquant": update,
    "replace_quant_v2": pull_up,
    **{f"replace_concat_quant_v{k}": pull_up for k in range(1, 10)},
    "replace_concat_quant_v10": pull_up_v10,
    "change_gap_conv": unquantize_block,
    "delete_concat": accept,
    "fuse_bn_quant": fold_normalization,
    "replace_resize_quant": resize,
    "simplify_shape_v2": constant_sizes,
    "quant_conv": quantize("conv", ("2", "102"), "104"),
    "quant_gemm": quantize("gemm", ("2", "102"), "104"),
    "quant_matmul": quantize("matmul", ("3", "103"), "105"),
}
