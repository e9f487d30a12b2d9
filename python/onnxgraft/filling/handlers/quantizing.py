"""`quant_conv`, `quant_gemm`, `quant_matmul`: all the numbers that they draw."""

from __future__ import annotations

import onnx
from onnx import helper

from onnxgraft.catalogue import intercepted
from onnxgraft.filling import graph_edits
from onnxgraft.filling.filler import Call, Filler
from onnxgraft.filling.operators import Quantizable
from onnxgraft.filling.origins import origin_of
from onnxgraft.report.filled_records import FilledOperator, LeftFloat

_SET_QUANTIZE, _SET_NUMBERS = "_update_tesselquant", "_update_quant_weights_operators"


def quantize(filler: Filler, call: Call) -> bool:
    """Quantizes one operator with real numbers, or leaves it float if that was decided."""
    node = call.replaced[0]
    output = node.output[0]
    if not call.transformation._check_current_precision(call.graph, call.links, input_name="1"):
        return call.proceed()
    if reason := filler.plan.left_float.get(output):
        filler.left_float(LeftFloat(graph_edits.label(node), output, reason))
        call.reasons.append(reason)
        return False
    # The functions with which the class draws are replaced during the call, so nothing is drawn.
    with intercepted(call.transformation, dict.fromkeys((_SET_QUANTIZE, _SET_NUMBERS), lambda *_, **_named: None)):
        accepted = call.proceed()
    if accepted:
        _fill(filler, call, node)
    return accepted


def _fill(filler: Filler, call: Call, node: onnx.NodeProto) -> None:
    graph, links = call.graph, call.links
    is_product = node.op_type == "MatMul"
    weight_id, bias_id, scale_id = ("101", "103", "105") if is_product else ("101", "102", "104")
    bias = links["3" if is_product else "2"] if bias_id in links else None
    add = call.replaced[1] if len(call.replaced) > 1 else None
    origin = origin_of(filler.plan, graph, Quantizable(node, add, links["1"], bias))
    numbers = origin.numbers()
    graph_edits.set_parameters(call.node(0), origin.activation)
    new = call.node(1)
    if node.op_type == "Gemm":
        _set_factors(new)
    graph_edits.put(graph, links[weight_id], numbers.weight, filler.store)
    if numbers.bias is not None:
        if bias is None:
            name = filler.fresh_name(graph, f"{links[weight_id]}_bias")
            new.input[:] = [*new.input[:2], name]
        else:
            name = links[bias_id]
        graph_edits.put(graph, name, numbers.bias)
    graph_edits.put_scales(graph, links[scale_id], numbers.scales)
    filler.origins[links[weight_id]] = origin
    filled = FilledOperator(
        origin.label,
        origin.output,
        links["0"],
        origin.activation.scale,
        origin.activation.offset,
        len(numbers.widened),
        corrected=origin.correction is not None,
    )
    filler.result.operators.append(filled)


def _set_factors(node: onnx.NodeProto) -> None:
    """Alpha and beta are in the numbers already."""
    for index, attribute in enumerate(node.attribute):
        if attribute.name in {"alpha", "beta"}:
            node.attribute[index].CopyFrom(helper.make_attribute(attribute.name, 1.0))
