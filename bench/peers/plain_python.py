"""Plain Python over protobuf: dicts for look-ups, one walk over the nodes, one edit of the list at the end."""

from __future__ import annotations

from collections.abc import Iterable

import onnx
from onnx import NodeProto, TensorProto, numpy_helper

from bench import arithmetic
from bench.peers import Peer


def _readers(graph: onnx.GraphProto) -> dict[str, int]:
    """How often each tensor is read, by nodes and as an output of the graph."""
    count: dict[str, int] = {}
    for node in graph.node:
        for name in node.input:
            count[name] = count.get(name, 0) + 1
    for value in graph.output:
        count[value.name] = count.get(value.name, 0) + 1
    return count


def _replace_nodes(graph: onnx.GraphProto, nodes: Iterable[NodeProto]) -> None:
    kept = list(nodes)
    del graph.node[:]
    graph.node.extend(kept)


def _drop_unread(graph: onnx.GraphProto, dropped: set[str]) -> None:
    """Deletes initializers in runs, from the end."""
    names = [tensor.name for tensor in graph.initializer]
    end = len(names)
    while end:
        begin = end
        while begin and names[begin - 1] in dropped:
            begin -= 1
        if begin < end:
            del graph.initializer[begin:end]
        end = begin - 1 if begin else 0


class _Names:
    """Names that no tensor and no node has."""

    def __init__(self, graph: onnx.GraphProto) -> None:
        self.taken = {name for node in graph.node for name in (node.name, *node.output)}
        self.taken |= {tensor.name for tensor in graph.initializer} | {value.name for value in graph.input}

    def fresh(self, wanted: str) -> str:
        name, number = wanted, 0
        while name in self.taken:
            number += 1
            name = f"{wanted}_{number}"
        self.taken.add(name)
        return name


def quant_conv(graph: onnx.GraphProto) -> int:
    """Puts every Conv with constant float weight between a quantize and a dequantize node."""
    initializers = {tensor.name: tensor for tensor in graph.initializer}
    readers, names = _readers(graph), _Names(graph)
    nodes: list[NodeProto] = []
    made: list[TensorProto] = []
    replaced = 0
    for node in graph.node:
        weight = initializers.get(node.input[1]) if node.op_type == "Conv" else None
        bias = initializers.get(node.input[2]) if weight is not None and len(node.input) == 3 else None
        constant = weight is not None and (len(node.input) == 2 or bias is not None)
        if weight is None or not constant or weight.data_type == TensorProto.INT8:
            nodes.append(node)
            continue
        base, (result,) = node.name, node.output
        quantized, product, scale = (names.fresh(f"{base}_{role}") for role in ("quantized", "product", "scale"))
        quantize = NodeProto(op_type="TesselQuant", name=names.fresh(f"{base}_quant"), output=[quantized])
        quantize.input.append(node.input[0])
        quantize.attribute.extend(arithmetic.quantize_attributes())
        node.input[0], node.output[0] = quantized, product
        for position, old in enumerate((weight, bias)):
            if old is None:
                continue
            name, shape = names.fresh(f"{old.name}_quantized"), tuple(old.dims)
            drawn = arithmetic.drawn_bias(shape) if position else arithmetic.drawn_weight(shape)
            made.append(numpy_helper.from_array(drawn, name))
            readers[old.name] -= 1
            node.input[position + 1] = name
        made.append(arithmetic.scale_tensor(scale, arithmetic.drawn_scales(weight.dims[0])))
        dequantize = NodeProto(op_type="TesselDequant", name=names.fresh(f"{base}_dequant"))
        dequantize.input.extend((product, scale))
        dequantize.output.append(result)
        nodes += (quantize, node, dequantize)
        replaced += 1
    _replace_nodes(graph, nodes)
    _drop_unread(graph, {name for name in initializers if readers.get(name) == 0})
    graph.initializer.extend(made)
    return replaced


def replace_quant_any(graph: onnx.GraphProto) -> int:
    """Makes a Conv, MaxPool or Resize read one of two quantize nodes of the same tensor instead of the other."""
    constants = {tensor.name for tensor in graph.initializer}
    readers = _readers(graph)
    quantize_nodes: dict[str, list[tuple[int, str]]] = {}  # by input: position and output
    sources: dict[str, tuple[int, str]] = {}  # by output: position and input
    for position, node in enumerate(graph.node):
        if node.op_type == "TesselQuant" and len(node.input) == 1:
            quantize_nodes.setdefault(node.input[0], []).append((position, node.output[0]))
            sources[node.output[0]] = position, node.input[0]
    allowed = {"Conv": (2, 3), "MaxPool": (1,), "Resize": (4,)}
    nodes: list[NodeProto | None] = list(graph.node)
    removed: set[int] = set()
    for node in graph.node:
        if node.op_type not in allowed or len(node.input) not in allowed[node.op_type]:
            continue
        first = sources.get(node.input[0])
        if first is None or readers[node.input[0]] != 1 or any(name not in constants for name in node.input[1:]):
            continue
        place = first[0]
        others = (found for found in quantize_nodes[first[1]] if found[0] != place and found[0] not in removed)
        if other := next(others, None):
            node.input[0] = other[1]
            readers[other[1]] = readers.get(other[1], 0) + 1
            removed.add(place)
            nodes[place] = None
            if other[0] > place and (kept := nodes[other[0]]) is not None:
                nodes[place], nodes[other[0]] = kept, None  # its readers may come in between
    _replace_nodes(graph, (node for node in nodes if node is not None))
    return len(removed)


PEER = Peer("plain Python", lambda model: quant_conv(model.graph))
