"""Hints about a missing operator, in the whole graph or at the place where the pattern expects it."""

from __future__ import annotations

from onnx import NodeProto, TensorProto, numpy_helper

from onnxgraft.graph.bodies import all_bodies
from onnxgraft.graph.surroundings import Surroundings
from onnxgraft.matching.hints.miss import Miss

_QUANTIZING = {"Conv": "quant_conv", "Gemm": "quant_gemm", "MatMul": "quant_matmul"}
_QUANTIZED_FORMS = ("QLinearConv", "QLinearMatMul", "ConvInteger", "MatMulInteger", "QuantizeLinear", "QGemm")
_ACTIVATIONS = ("Relu", "LeakyRelu", "Sigmoid", "HardSwish", "HardSigmoid", "Clip", "Gelu", "Elu", "PRelu", "Mish")
_PASSED_BY = ("Identity", "Cast", "Dropout")


def mean_instead_of_pool(miss: Miss) -> str | None:
    """The same pool, written as a mean over the spatial axes."""
    if miss.wanted.op != "GlobalAveragePool":
        return None
    nodes = miss.around.operators.get("ReduceMean", []) if miss.node is None else [miss.node]
    pools = sum(node.op_type == "ReduceMean" and _is_pool(miss.around, node) for node in nodes)
    if not pools:
        return None
    which = "it" if miss.node is not None else f"the graph has {pools} such ReduceMean node{'s'[: pools > 1]}: it"
    return (
        f"a ReduceMean over height and width does the same; {which} becomes a GlobalAveragePool by prepare (pool_means)"
    )


def nothing_quantized(miss: Miss) -> str | None:
    """Most patterns match quantized operators."""
    if miss.wanted.op not in ("TesselQuant", "TesselDequant"):
        return None
    wanted = [op for op in _QUANTIZING if op in {node.op for node in miss.pattern}]
    able = [_QUANTIZING[op] for op in wanted or _QUANTIZING if op in miss.around.operators]
    absent = [node.op for node in miss.pattern if node.op not in miss.around.operators]
    absent = [op for op in dict.fromkeys(absent) if op not in ("TesselQuant", "TesselDequant")]
    if absent:
        return f"the graph has no {' and no '.join(absent)} either: the pattern is for other networks"
    return f"nothing is quantized yet: run {' and '.join(able)} first" if able else None


def quantized_form(miss: Miss) -> str | None:
    """The model was already quantized by ONNX's own operators."""
    there = [op for op in _QUANTIZED_FORMS if op in miss.around.operators]
    if miss.wanted.op not in _QUANTIZING or not there:
        return None
    return f"already quantized: the graph has {there[0]} nodes; start from the float model"


def inside_functions(miss: Miss) -> str | None:
    """Functions of the model are not searched."""
    names = [f.name for f in miss.functions if any(node.op_type == miss.wanted.op for node in f.node)]
    if not names:
        return None
    return f"function '{names[0]}' of the model has one: inline the functions first (onnx.inliner)"


def inside_bodies(miss: Miss) -> str | None:
    """Nested graphs are not searched either."""
    for index, node in enumerate(miss.around.graph.node):
        if any(inner.op_type == miss.wanted.op for body in all_bodies(node) for inner in body.node):
            return f"only a nested graph has one (in {miss.text(index)}), and these are not rewritten"
    return None


def folded_normalization(miss: Miss) -> str | None:
    """Exporters fold normalizations into convolutions."""
    if miss.wanted.op != "BatchNormalization" or "Conv" not in miss.around.operators:
        return None
    return "by default, exporters fold a BatchNormalization into the Conv before it"


def other_activation(miss: Miss) -> str | None:
    """The network is a variant with another activation."""
    if miss.wanted.op not in ("Relu", "LeakyRelu", "Sigmoid"):
        return None
    if miss.node is not None:
        other = miss.node.op_type if miss.node.op_type in _ACTIVATIONS else ""
        return f"the activation here is {other}; the pattern matches only {miss.wanted.op}" if other else None
    there = [op for op in _ACTIVATIONS if op in miss.around.operators]
    if "Sigmoid" in there and "Mul" in miss.around.operators:
        there[there.index("Sigmoid")] = "Sigmoid with Mul"
    return f"this graph has other activations: {', '.join(there)}" if there else None


def sizes_known(miss: Miss) -> str | None:
    """The graph has no shape computation to simplify."""
    if miss.wanted.op not in ("Shape", "Slice") or "Shape" in miss.around.operators:
        return None
    return "the graph computes nothing from shapes: there is nothing to simplify"


def not_quantized(miss: Miss) -> str | None:
    """The pattern expects a quantize or dequantize node, and the operator has float weights."""
    node = miss.node
    if node is None or miss.wanted.op not in ("TesselQuant", "TesselDequant"):
        return None
    operand = node
    if miss.wanted.op == "TesselDequant" and node.op_type not in _QUANTIZING:
        operand = next((w for name in node.input if (w := miss.around.writer.get(name)) is not None), node)
    if operand.op_type not in _QUANTIZING or len(operand.input) < 2:
        return None
    weight = miss.around.constant(operand.input[1])
    if weight is None or weight.data_type == TensorProto.INT8:
        return None
    return f"that {operand.op_type} is not quantized: run {_QUANTIZING[operand.op_type]} first"


def stands_between(miss: Miss) -> str | None:
    """A node that only passes data on is where the pattern expects the operator."""
    node = miss.node
    if node is None or node.op_type not in _PASSED_BY:
        return None
    after = [miss.around.graph.node[index] for name in node.output for index in miss.around.readers(name)]
    front = [miss.around.writer[name] for name in node.input if name in miss.around.writer]
    if not any(other.op_type == miss.wanted.op for other in (*after, *front)):
        return None
    return f"the {node.op_type} is between it and the next {miss.wanted.op}"


def _is_pool(around: Surroundings, node: NodeProto) -> bool:
    """A mean over the last two axes of four that keeps them."""
    attributes = {attribute.name: attribute for attribute in node.attribute}
    if "keepdims" in attributes and not attributes["keepdims"].i:
        return False
    if "axes" in attributes:
        axes = list(attributes["axes"].ints)
    else:
        tensor = around.constant(node.input[1]) if len(node.input) > 1 else None
        axes = [] if tensor is None else numpy_helper.to_array(tensor).ravel().tolist()
    return sorted(axis % 4 for axis in axes) == [2, 3]
