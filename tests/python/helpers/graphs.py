"""The self-test's random graphs with anomalies: valid but rare ones, and some that no exporter should write.

No graph has a cycle: a node reads only tensors written before it, and the list is shuffled at the end.
"""

import random
from collections.abc import Sequence

import onnx
from onnx import GraphProto, NodeProto, SparseTensorProto, TensorProto, ValueInfoProto, helper

from onnxgraft.graph.bodies import bodies
from onnxgraft.graph.names import sources
from onnxgraft.selfcheck.graph_builder import GraphBuilder


class Strange:
    """Spoils a graph in place, each thing with a small probability."""

    def __init__(self, rng: random.Random, graph: GraphProto, degree: float) -> None:
        self.rng, self.graph, self.degree = rng, graph, degree

    def now(self, factor: float = 1.0) -> bool:
        return self.rng.random() < self.degree * factor

    def spoil(self) -> None:
        there = sorted(sources(self.graph))
        for node in self.graph.node:
            if there:
                self._spoil_node(node, there)
            for body in bodies(node):
                self._spoil_body(body, depth=self.rng.randint(0, 1))
            there += filter(None, node.output)
        self._spoil_lists(there)
        if self.rng.random() < 0.25:
            nodes = [NodeProto.FromString(node.SerializeToString()) for node in self.graph.node]
            del self.graph.node[:]
            self.graph.node.extend(self.rng.sample(nodes, len(nodes)))

    def _spoil_node(self, node: NodeProto, there: list[str]) -> None:
        rng, inputs, outputs = self.rng, list(node.input), list(node.output)
        if self.now(2):
            node.name = rng.choice(("", "twin"))
        if rng.random() < 0.2:
            node.doc_string, node.domain = rng.choice((("", ""), ("a note", "custom")))
            node.attribute.append(helper.make_attribute("note", rng.random()))
        if self.now() and inputs:
            inputs[rng.randrange(len(inputs))] = rng.choice((rng.choice(there), ""))
        if self.now():
            rng.shuffle(inputs)
        if self.now():
            inputs += rng.choice(([""], ["", ""], [rng.choice(there)]))
        if self.now() and inputs:
            inputs.pop()
        if self.now():
            outputs = rng.choice(([*outputs, ""], [*outputs, f"second_{outputs[0]}"], ["", *outputs]))
        node.input[:], node.output[:] = inputs, outputs

    def _spoil_body(self, body: GraphProto, depth: int) -> None:
        """The body hides an outer name that it reads, before or after; or it returns an outer tensor."""
        names = [name for node in body.node for name in (*node.input, *node.output)]
        hidden = self.rng.choice(names)
        how = self.rng.choice(("none", "none", "input", "initializer", "sparse", "node", "later"))
        if how == "input":
            body.input.append(_value(hidden))
        elif how == "initializer":
            body.initializer.append(_tensor(hidden))
        elif how == "sparse":
            body.sparse_initializer.append(_sparse(hidden))
        elif how != "none":
            body.node.insert(0 if how == "node" else len(body.node), NodeProto(op_type="Constant", output=[hidden]))
        if depth:
            inner = GraphProto.FromString(body.SerializeToString())
            self._spoil_body(inner, depth - 1)
            body.node.add(op_type="If", output=["inner"]).attribute.append(helper.make_attribute("then_branch", inner))
        if self.rng.random() < 0.3:
            body.output[0].name = self.rng.choice(names)

    def _spoil_lists(self, names: list[str]) -> None:
        rng, graph = self.rng, self.graph
        for name in names:
            graph.value_info.extend([_value(name)] * self.now())
            if rng.random() < 0.03:
                graph.output.append(_value(name))
        for tensor in list(graph.initializer):
            graph.initializer.extend([tensor] * self.now())
            if rng.random() < 0.2:
                graph.input.append(_value(tensor.name))
            if self.now(0.3):
                tensor.name = rng.choice(names)
        if self.now(2) and names:
            graph.quantization_annotation.append(onnx.TensorAnnotation(tensor_name=rng.choice(names)))
            graph.sparse_initializer.append(_sparse("sparse"))
        if self.now() and graph.input:
            graph.input.pop()
        if self.now() and graph.node:  # a second writer; it reads nothing, so there is still no cycle
            graph.node.add(op_type=rng.choice(graph.node).op_type, output=[rng.choice(names)])


def _value(name: str) -> ValueInfoProto:
    return helper.make_tensor_value_info(name, TensorProto.FLOAT, [2])


def _tensor(name: str) -> TensorProto:
    return helper.make_tensor(name, TensorProto.FLOAT, [1], [0.0])


def _sparse(name: str) -> SparseTensorProto:
    indices = helper.make_tensor("indices", TensorProto.INT64, [1], [0])
    return helper.make_sparse_tensor(_tensor(name), indices, [1])


def random_graph(rng: random.Random, pattern: Sequence[str]) -> GraphProto:
    """Occurrences of the pattern and near misses, of any degree of strangeness."""
    graph = GraphBuilder(rng).build([pattern] * (2 if len(pattern) < 4 else 1))
    graph.doc_string = rng.choice(("", "a doc string"))
    Strange(rng, graph, rng.choice((0.0, 0.04, 0.15))).spoil()
    return graph
