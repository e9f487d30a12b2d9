"""`account_of`: which operators of a graph are INT8, and for each of the others the reason.

The reasons follow the conditions of the quantizing patterns: an initializer as weight, an initializer as bias, one
operator of the standard domain in the graph itself. For the rest, the run decides: an operator that meets all of them
and is still float was refused or turned back.
"""

from __future__ import annotations

import functools
from collections.abc import Iterable, Iterator, Mapping, Sequence
from dataclasses import dataclass, field
from itertools import chain

import onnx
from onnx import GraphProto, NodeProto, TensorProto

from onnxgraft.accounting.choice import Choice
from onnxgraft.accounting.costs import ShapeOf, multiply_adds
from onnxgraft.accounting.quantizers import given_weights, quantized_by
from onnxgraft.catalogue import Transformation
from onnxgraft.graph.bodies import bodies, can_hold_bodies
from onnxgraft.report.account_records import COUNTED, RECURRENT, Account, FloatOperator, OperatorCount

_LISTED = frozenset((*COUNTED, *RECURRENT))
_STANDARD = ("", "ai.onnx")
_FLOATS = (TensorProto.FLOAT, TensorProto.FLOAT16, TensorProto.DOUBLE, TensorProto.BFLOAT16)
_ELEMENT_BYTES: Mapping[int, int] = {
    TensorProto.INT8: 1,
    TensorProto.FLOAT16: 2,
    TensorProto.BFLOAT16: 2,
    TensorProto.DOUBLE: 8,
}


@dataclass
class RunFacts:
    """Facts about a run that the graph does not show.

    Attributes:
        ran: Short names of the transformations that ran.
        turned_back: Transformations that replaced something, by the operators that they give new weights.
        refused: Output or name of an operator -> the reason from its callback.
        choice: The user's selection of operators.
    """

    ran: set[str] = field(default_factory=set)
    turned_back: dict[str, str] = field(default_factory=dict)
    refused: dict[str, str] = field(default_factory=dict)
    choice: Choice | None = None

    def note(self, row: Transformation, *, replaced: bool) -> None:
        """Records that one transformation has run."""
        self.ran.add(row.name)
        if replaced and row.name not in quantized_by().values():
            for op in given_weights(row):
                self.turned_back[op] = row.name


def account_of(
    graph: GraphProto,
    shape_of: ShapeOf,
    facts: RunFacts | None = None,
    functions: Sequence[onnx.FunctionProto] = (),
) -> Account:
    """Counts the operators of a graph and gives a reason for each one in float.

    Args:
        graph: The graph, after the run if there was one.
        shape_of: The shape of a tensor, None if it is not known.
        facts: Facts about the run; None if nothing ran.
        functions: Those of the model.
    """
    account = Account()
    initializers = {tensor.name: tensor for tensor in graph.initializer}
    reasons = _Reasons(graph, initializers, facts)
    for node in graph.node:
        op = node.op_type
        if op in _LISTED:
            if op in COUNTED and node.domain in _STANDARD:
                _count(account, node, initializers, shape_of, reasons)
            else:
                account.left.append(_left(node, "", *reasons.foreign(node), None))
        for inner, place in _inner(node) if can_hold_bodies(op, node.domain) else ():
            account.left.append(_left(inner, place, "nested_body", f"is in {place}, where no pattern matches", None))
    for function in functions:
        for node in function.node:
            if node.op_type in _LISTED:
                place = f"function '{function.name}'"
                account.left.append(_left(node, place, "function", f"is in {place}, where no pattern matches", None))
    return account


def reasons_in_float(graph: GraphProto, nodes: Iterable[NodeProto]) -> dict[str, str]:
    """Why operators cannot be quantized, for those of some nodes where the reason is their own and not that of a run.

    Args:
        graph: The graph that the nodes belong to.
        nodes: The nodes; those that are INT8 or that are not counted have no reason.

    Returns:
        Output of the operator -> the reason as a sentence.
    """
    initializers = {tensor.name: tensor for tensor in graph.initializer}
    reasons = _Reasons(graph, initializers, None)
    found = {}
    for node in nodes:
        if node.op_type in _LISTED and all(one.data_type != TensorProto.INT8 for one in _weights(node, initializers)):
            is_counted = node.op_type in COUNTED and node.domain in _STANDARD
            found[next(iter(node.output), "")] = reasons.of(node) if is_counted else reasons.foreign(node)
    return {output: text for output, (reason, text) in found.items() if reason != "not_run"}


def _count(
    account: Account,
    node: NodeProto,
    initializers: Mapping[str, TensorProto],
    shape_of: ShapeOf,
    reasons: _Reasons,
) -> None:
    count = account.operators.setdefault(node.op_type, OperatorCount())
    macs = multiply_adds(node, shape_of)
    weights = _weights(node, initializers)
    size = sum(_elements(tensor) * _ELEMENT_BYTES.get(tensor.data_type, 4) for tensor in weights)
    if any(tensor.data_type == TensorProto.INT8 for tensor in weights):
        count.int8 += 1
        count.int8_macs += macs or 0
        count.int8_bytes += size
    else:
        count.float += 1
        count.float_macs += macs or 0
        count.float_bytes += size
        account.left.append(_left(node, "", *reasons.of(node), macs))
    count.unknown_macs += macs is None


def _weights(node: NodeProto, initializers: Mapping[str, TensorProto]) -> list[TensorProto]:
    """The weight, if it is an initializer: input 1, or input 0 of a MatMul without an initializer there."""
    weights = [initializers[name] for name in node.input[1:2] if name in initializers]
    if node.op_type == "MatMul" and not weights:
        weights = [initializers[name] for name in node.input[:1] if name in initializers]
    return weights


def _elements(tensor: TensorProto) -> int:
    result = 1
    for size in tensor.dims:
        result *= size
    return result


def _left(node: NodeProto, place: str, reason: str, text: str, macs: int | None) -> FloatOperator:
    return FloatOperator(node.op_type, node.name, next(iter(node.output), ""), place, reason, text, macs)


def _inner(node: NodeProto) -> Iterator[tuple[NodeProto, str]]:
    """The operators in the nested graphs of a node, at any depth."""
    todo = [(body, f"a body of {_label(node)}") for body in bodies(node)]
    while todo:
        body, place = todo.pop()
        for inner in body.node:
            if inner.op_type in _LISTED:
                yield inner, place
            todo += [(deeper, place) for deeper in bodies(inner)]


def _label(node: NodeProto) -> str:
    return f"{node.op_type} '{node.name}'" if node.name else f"{node.op_type} (writes '{next(iter(node.output), '')}')"


class _Reasons:
    """Why an operator of the graph itself is in float: identifier and sentence."""

    def __init__(self, graph: GraphProto, constants: Mapping[str, TensorProto], facts: RunFacts | None) -> None:
        self._graph = graph
        self._constants = constants
        self._facts = facts

    @functools.cached_property
    def _writers(self) -> Mapping[str, NodeProto]:
        """The writer of each tensor, the first one counts; needed only for computed weights."""
        return {name: node for node in reversed(self._graph.node) for name in reversed(node.output)}

    def foreign(self, node: NodeProto) -> tuple[str, str]:
        if node.domain not in _STANDARD:
            return "other_domain", f"is an operator of domain '{node.domain}'"
        return "unsupported", f"no transformation quantizes {node.op_type}"

    def of(self, node: NodeProto) -> tuple[str, str]:
        """The first reason that applies: the user's wish, the operator itself, the run."""
        for found in chain(self._chosen(node), self._operands(node), self._told_by_run(node)):
            return found
        return "unknown", "no reason is known: please report this model"

    def _chosen(self, node: NodeProto) -> Iterator[tuple[str, str]]:
        if node.op_type not in quantized_by():
            yield "unsupported", f"no transformation quantizes {node.op_type}"
        choice = None if self._facts is None else self._facts.choice
        if choice is not None and choice.leaves_out(node):
            yield "excluded", "the user excluded it"

    def _told_by_run(self, node: NodeProto) -> Iterator[tuple[str, str]]:
        facts, quantizer = self._facts, quantized_by()[node.op_type]
        if facts is None or quantizer not in facts.ran:
            yield "not_run", f"'{quantizer}' was not run"
            return
        for name in filter(None, (*node.output, node.name)):
            if name in facts.refused:
                yield "refused", facts.refused[name]
        if node.op_type in facts.turned_back:
            yield "turned_back", f"'{facts.turned_back[node.op_type]}' made it float again"

    def _operands(self, node: NodeProto) -> Iterator[tuple[str, str]]:
        constants = self._constants
        inputs = list(node.input)
        while inputs and not inputs[-1]:
            inputs.pop()
        outputs = [name for name in node.output if name]
        if len(inputs) < 2 or len(outputs) != 1:
            yield "form", f"has {len(inputs)} inputs and {len(outputs)} outputs"
            return
        weight = inputs[1]
        if weight not in constants:
            if node.op_type == "MatMul" and inputs[0] in constants:
                yield (
                    "weight_first",
                    f"its weight '{inputs[0]}' is the first operand; the patterns expect it as the second",
                )
            elif node.op_type in ("MatMul", "Gemm"):
                yield "both_computed", f"both operands are computed: '{inputs[0]}' and {self._source(weight)}"
            else:
                yield "computed_weight", f"its weight {self._source(weight)}"
        elif constants[weight].data_type not in _FLOATS:
            name = TensorProto.DataType.Name(constants[weight].data_type)
            yield "element_type", f"its weight '{weight}' has type {name}"
        elif not inputs[0]:
            yield "form", "omits its first input"
        elif len(inputs) > 2 and inputs[2] not in constants:
            yield "computed_bias", f"its bias {self._source(inputs[2])}"

    def _source(self, tensor: str) -> str:
        if not tensor:
            return "is left out"
        writer = self._writers.get(tensor)
        if writer is not None:
            return f"'{tensor}' is written by {_label(writer)}"
        return f"'{tensor}' is an input of the graph"
