"""What a nearest miss means and what would help: a table from each reason to small functions. The first answer counts.

A function answers only if it is sure. If none is, there is no hint.
"""

from __future__ import annotations

from collections.abc import Callable, Mapping, Sequence

from onnx import NodeProto, TensorProto

from onnxgraft.graph.surroundings import Surroundings
from onnxgraft.matching.hints import constants, inputs, operators, uses
from onnxgraft.matching.hints.miss import Miss

__all__ = ["Miss", "on_matches", "on_miss"]

Hint = Callable[[Miss], str | None]

HINTS: Mapping[str, tuple[Hint, ...]] = {
    "missing_operator": (
        operators.mean_instead_of_pool,
        operators.nothing_quantized,
        operators.quantized_form,
        operators.inside_functions,
        operators.inside_bodies,
        operators.folded_normalization,
        operators.other_activation,
        operators.sizes_known,
    ),
    "wrong_operator": (
        operators.mean_instead_of_pool,
        inputs.exchanged_producers,
        operators.not_quantized,
        operators.other_activation,
        operators.stands_between,
        inputs.missing_sibling,
    ),
    "output_count": (inputs.further_outputs,),
    "second_producer": (uses.two_writers,),
    "input_count": (inputs.constant_of_two, inputs.resize_inputs, inputs.missing_bias, inputs.other_count),
    "input_omitted": (inputs.omitted_resize_input, inputs.omitted),
    "not_initializer": (
        inputs.exchanged_initializer,
        constants.constant_node,
        constants.identity,
        constants.transpose,
        constants.dequantized,
        constants.sizes_from_shape,
        constants.computed_from_constants,
        constants.fed_from_outside,
        constants.both_computed,
    ),
    "rest_not_initializer": (
        constants.constant_node,
        constants.identity,
        constants.sizes_from_shape,
        constants.computed_from_constants,
        constants.fed_from_outside,
    ),
    "other_position": (inputs.other_position,),
    "different_tensors": (inputs.different_tensors,),
    "graph_output": (uses.graph_output,),
    "read_by_body": (uses.read_by_body,),
    "read_elsewhere": (uses.read_elsewhere,),
    "too_few_readers": (uses.chained_pools, uses.too_few_readers),
    "node_used_twice": (uses.only_one,),
    "no_producer": (uses.no_producer,),
    "no_reader": (uses.no_reader,),
    "closes_cycle": (uses.closes_cycle,),
}


def on_miss(miss: Miss) -> str | None:
    """The first hint that applies."""
    answers = (hint(miss) for hint in HINTS.get(miss.reason, ()))
    return next(filter(None, answers), None)


def on_matches(surroundings: Surroundings, transformation: str, nodes: Sequence[NodeProto]) -> str | None:
    """A hint about matches that are certain to be refused: those that quantize an operator again."""
    if transformation not in ("quant_conv", "quant_gemm", "quant_matmul"):
        return None
    operands = [node for node in nodes if node.op_type in ("Conv", "Gemm", "MatMul")]
    weights = [surroundings.initializers.get(node.input[1]) for node in operands]
    done = sum(weight is not None and weight.data_type == TensorProto.INT8 for weight in weights)
    return (
        f"already quantized: {done} of {len(operands)} weights are INT8, so these matches are refused" if done else None
    )
