"""Makes a transformation class of a rule."""

from __future__ import annotations

import types
from collections.abc import Mapping
from dataclasses import dataclass, field
from itertools import chain
from typing import Any

import numpy as np
import onnx
from onnx import GraphProto, NodeProto, helper, numpy_helper

from onnxgraft.abstract_transformation import AbstractTransformation
from onnxgraft.rules.conditions import Kind, NodeCondition, TensorCondition
from onnxgraft.rules.rule import Rule, RulePair
from onnxgraft.rules.values import Array, Expression, RefusedError, Scope, Value, element_type_name
from onnxgraft.transform_utilities import get_init


class RuleTransformation(AbstractTransformation):
    """The base of the classes of all rules. `class_of` makes them; do not derive by hand."""

    rule: Rule

    def get_simple_name(self) -> str:
        """The rule's name."""
        return self.rule.name

    def apply(self, graph: GraphProto, debug: bool = False) -> int:
        """Runs the rule's pairs in order; returns the number of replaced occurrences."""
        kinds = _Kinds(graph)
        count = 0
        for pair in self.rule.pairs:
            more: dict[str, Any] = {} if pair.is_plain else {"pair": pair, "kinds": kinds}
            count += self._replace_all_isomorphic_sub_graphs(
                graph, list(pair.pattern), list(pair.replacement), debug=debug, **more
            )
        return count


class _CheckedRuleTransformation(RuleTransformation):
    """A rule with conditions or values. A rule of lists alone needs no callback and runs without one, at full speed."""

    def _on_replace_subgraph(
        self,
        graph: GraphProto,
        replaced_nodes: list[NodeProto],
        isomorphic_node_mapping: dict[int, int],
        isomorphic_links_mapping: dict[str, str],
        *,
        pair: RulePair | None = None,
        kinds: _Kinds | None = None,
        refusal_reasons: list[str] | None = None,
        **_: Any,
    ) -> bool:
        if pair is None or kinds is None:
            return True
        occurrence = _Occurrence(graph, pair, replaced_nodes, isomorphic_links_mapping, kinds)
        try:
            # Compute everything before the first write: a refusal leaves no trace.
            occurrence.check()
            tensors = [
                numpy_helper.from_array(np.ascontiguousarray(occurrence.evaluate(value).stored()), name)
                for name, value in ((isomorphic_links_mapping[tensor], v) for tensor, v in pair.initializers.items())
            ]
            attributes = {
                isomorphic_node_mapping[position]: [occurrence.attribute(*item) for item in values.items()]
                for position, values in pair.attributes.items()
            }
        except RefusedError as error:
            if refusal_reasons is not None:
                refusal_reasons.append(str(error))
            return False
        graph.initializer.extend(tensors)
        for index, made in attributes.items():
            _set_attributes(graph.node[index], made)
        return True


def class_of(rule: Rule) -> type[RuleTransformation]:
    """The transformation class that runs a rule."""
    base = RuleTransformation if all(pair.is_plain for pair in rule.pairs) else _CheckedRuleTransformation
    name = "".join(word.capitalize() for word in rule.name.split("_")) + "Rule"
    members = {
        "rule": rule,
        "__doc__": rule.summary or None,
        "__module__": __name__,
        "__qualname__": f"{rule.source}:{rule.name}",
    }
    return types.new_class(name, (base,), exec_body=lambda namespace: namespace.update(members))


@dataclass
class _Kinds:
    """Element types and shapes of a graph's tensors, at the time when the first one was asked for."""

    graph: GraphProto
    _known: dict[str, Kind] | None = None

    def __getitem__(self, name: str) -> Kind:
        if self._known is None:
            graph = self.graph
            self._known = {
                value.name: _kind_of(value.type.tensor_type)
                for value in chain(graph.value_info, graph.output, graph.input)
                if value.type.HasField("tensor_type")
            }
        return self._known.get(name, Kind(None, None))


def _kind_of(tensor: onnx.TypeProto.Tensor) -> Kind:
    shape = None
    if tensor.HasField("shape"):
        shape = tuple(size.dim_value if size.HasField("dim_value") else None for size in tensor.shape.dim)
    return Kind(element_type_name(tensor.elem_type) if tensor.elem_type else None, shape)


@dataclass
class _Occurrence(Scope):
    """One occurrence, for conditions and expressions."""

    graph: GraphProto
    pair: RulePair
    nodes: list[NodeProto]
    links: Mapping[str, str]
    kinds: _Kinds
    _constants: dict[str, Array] = field(default_factory=dict)
    _named: dict[str, Value] = field(default_factory=dict)

    def constant(self, tensor: str) -> Array:
        if tensor not in self._constants:
            (array,), _ = get_init(self.graph, [self.links[tensor]])
            self._constants[tensor] = array
        return self._constants[tensor]

    def node(self, number: int) -> NodeProto:
        return self.nodes[number]

    def named(self, name: str) -> Value:
        if name not in self._named:
            self._named[name] = self.evaluate(self.pair.let[name])
        return self._named[name]

    def name(self, tensor: str) -> str:
        return self.links[tensor]

    def kind(self, tensor: str) -> Kind:
        if any(f"{tensor}i" in _links(text) for text in self.pair.pattern):
            array = self.constant(tensor)
            return Kind(array.dtype.name, array.shape)
        return self.kinds[self.links[tensor]]

    def check(self) -> None:
        """Raises RefusedError with the first condition that does not hold."""
        conditions: tuple[NodeCondition | TensorCondition, ...] = (*self.pair.nodes, *self.pair.tensors)
        for condition in conditions:
            for objection in condition.objections(self):
                raise RefusedError(objection)

    def evaluate(self, expression: Expression) -> Value:
        return expression.evaluate(self)

    def attribute(self, name: str, value: Expression | str) -> onnx.AttributeProto:
        if isinstance(value, str):
            return helper.make_attribute(name, value)
        array = self.evaluate(value).array
        plain = array.astype(np.int64).tolist() if array.dtype.kind in "bi" else array.tolist()
        if array.ndim > 1:
            raise RefusedError(f"attribute '{name}' cannot hold an array of rank {array.ndim}")
        kind = onnx.AttributeProto.INTS if array.dtype.kind in "bi" else onnx.AttributeProto.FLOATS
        return helper.make_attribute(name, plain, attr_type=kind if array.ndim else None)


def _links(text: str) -> list[str]:
    return text.partition(":")[2].partition("->")[0].split(",")


def _set_attributes(node: NodeProto, made: list[onnx.AttributeProto]) -> None:
    names = {attribute.name for attribute in made}
    rest = [attribute for attribute in node.attribute if attribute.name not in names]
    if len(rest) != len(node.attribute):
        kept = [onnx.AttributeProto.FromString(attribute.SerializeToString()) for attribute in rest]
        del node.attribute[:]
        node.attribute.extend(kept)
    node.attribute.extend(made)
