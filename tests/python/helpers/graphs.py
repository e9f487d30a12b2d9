"""Random graphs built around a pattern: several instances that overlap, near misses, and everything around.

No graph has a cycle: a node reads only what was there before it, and the list is shuffled at the end.
"""

from __future__ import annotations

import random
from collections.abc import Sequence

import onnx
from onnx import GraphProto, NodeProto, TensorProto, helper

from oracle.names import reads
from oracle.notation import Pair, PatternNode, parse_pair

LARGEST = 22


class GraphMaker:
    def __init__(self, rng: random.Random, pattern: Sequence[str]) -> None:
        self.rng = rng
        self.pair: Pair = parse_pair(pattern, [])
        self.graph = GraphProto(name="random", doc_string=rng.choice(("", "a doc string")))
        self.tensors: list[str] = []
        self.strangeness = rng.choice((0.0, 0.04, 0.15))
        self._count = 0

    def strange(self, factor: float = 1.0) -> bool:
        return self.rng.random() < self.strangeness * factor

    def _name(self, stem: str) -> str:
        self._count += 1
        return f"{stem}{self._count}"

    def tensor(self) -> str:
        """A tensor to read, mostly a recent one."""
        if not self.tensors or self.rng.random() < 0.2:
            name = self._name("x")
            if not self.strange():
                self.graph.input.append(helper.make_tensor_value_info(name, TensorProto.FLOAT, [1]))
            self.tensors.append(name)
        if self.strange(0.5) and self.graph.initializer:
            return self.rng.choice(self.graph.initializer).name
        size = len(self.tensors)
        return self.tensors[max(self.rng.randrange(size), self.rng.randrange(size))]

    def constant(self) -> str:
        if self.graph.initializer and self.rng.random() < 0.4:
            return self.rng.choice(self.graph.initializer).name
        name = self.rng.choice(self.tensors) if self.tensors and self.strange(0.3) else self._name("w")
        value = helper.make_tensor(name, TensorProto.FLOAT, [1], [float(self._count)])
        self.graph.initializer.extend([value] * (2 if self.strange() else 1))
        if self.rng.random() < 0.2:
            self.graph.input.append(helper.make_tensor_value_info(name, TensorProto.FLOAT, [1]))
        return name

    def add(self, op: str, inputs: list[str], output: str | None = None) -> NodeProto:
        name = self.rng.choice(("", "twin")) if self.strange(2) else self._name("n")
        outputs = [output or self._name("t")]
        if self.strange():
            outputs = self.rng.choice(([*outputs, ""], [*outputs, self._name("second")], ["", *outputs]))
        node = self.graph.node.add(op_type=op, name=name, input=inputs, output=outputs)
        if self.rng.random() < 0.3:
            node.attribute.append(helper.make_attribute("scale", self.rng.random()))
            node.doc_string, node.domain = self.rng.choice((("", ""), ("a note", "custom")))
        if op == "If":
            for branch in ("then_branch", "else_branch"):
                node.attribute.append(helper.make_attribute(branch, self.body(self.rng.randint(0, 1))))
        self.tensors += [o for o in outputs if o and o not in self.tensors]
        return node

    def body(self, depth: int, enclosing: Sequence[str] = ()) -> GraphProto:
        """A nested graph that reads outer tensors, hides some of them, or hands one out as its result."""
        rng, body = self.rng, GraphProto(name="body")
        names = [rng.choice((self.tensor(), self.constant())) for _ in range(rng.randint(0, 3))]
        names += [*enclosing, "local"]
        hidden = rng.choice(names)
        how = rng.choice(("none", "none", "input", "initializer", "sparse", "node", "later"))
        if how == "input":
            body.input.append(helper.make_tensor_value_info(hidden, TensorProto.FLOAT, [1]))
        elif how == "initializer":
            body.initializer.append(helper.make_tensor(hidden, TensorProto.FLOAT, [1], [0.0]))
        elif how == "sparse":
            values = helper.make_tensor(hidden, TensorProto.FLOAT, [1], [1.0])
            indices = helper.make_tensor("indices", TensorProto.INT64, [1], [0])
            body.sparse_initializer.append(helper.make_sparse_tensor(values, indices, [1]))
        elif how == "node":
            body.node.add(op_type="Constant", output=[hidden])
        body.node.add(op_type="Sum", input=[n for n in names if n != "local"], output=["local"])
        if how == "later":
            body.node.add(op_type="Constant", output=[hidden if hidden != "local" else "late"])
        if depth:
            inner = body.node.add(op_type="If", input=["local"], output=["inner"])
            inner.attribute.append(helper.make_attribute("then_branch", self.body(depth - 1, [hidden])))
        result = rng.choice((*names, self.tensor()))
        body.output.append(helper.make_tensor_value_info(result, TensorProto.FLOAT, [1]))
        return body

    def _candidates(self, node: PatternNode, links: dict[str, str], used: list[str]) -> list[NodeProto]:
        """Nodes already there that could play `node` as well."""
        return [
            n
            for n in self.graph.node
            if n.op_type == node.op
            and n.output[0] not in used
            and len(n.input) >= len(node.inputs)
            and all(links.get(link.id, name) == name for link, name in zip(node.inputs, n.input, strict=False))
        ]

    def _outside(self, links: dict[str, str]) -> str:
        """A tensor for an input of the pattern; now and then it hangs on an output of the same instance."""
        own = [links[n.output] for n in self.pair.pattern if n.output in links]
        if not own or self.rng.random() < 0.85:
            return self.tensor()
        name = self.rng.choice(own)  # either the tensor itself, under a second id, or one node further
        return name if self.rng.random() < 0.4 else self.add("Abs", [name]).output[-1] or name

    def _play(self, node: PatternNode, links: dict[str, str], used: list[str]) -> None:
        there = self._candidates(node, links, used)
        if there and self.rng.random() < 0.35:
            chosen = self.rng.choice(there)
            links.update((link.id, name) for link, name in zip(node.inputs, chosen.input, strict=False))
        else:
            for link in node.inputs:
                if link.id not in links:
                    links[link.id] = self.constant() if link.initializer else self._outside(links)
            inputs = [links[link.id] for link in node.inputs]
            if node.rest:
                inputs += [self.rng.choice(("", self.constant())) for _ in range(self.rng.randint(0, 2))]
            chosen = self.add(node.op, self._spoiled(inputs))
        links[node.output] = next(filter(None, chosen.output))
        used.append(chosen.output[0])

    def _spoiled(self, inputs: list[str]) -> list[str]:
        rng = self.rng
        if self.strange() and inputs:
            inputs[rng.randrange(len(inputs))] = rng.choice((self.tensor(), self.constant(), ""))
        if self.strange():
            rng.shuffle(inputs)
        if self.strange():
            inputs += rng.choice(([""], ["", ""], [self.tensor()], [self.constant()]))
        if self.strange() and inputs:
            inputs.pop()
        return inputs

    def instance(self) -> None:
        """The pattern once more, node by node, with some nodes that are there already."""
        links: dict[str, str] = {}
        used: list[str] = []
        todo = list(self.pair.pattern)
        while todo:
            inner = {n.output for n in todo}
            node = next(n for n in todo if not inner & {link.id for link in n.inputs})
            todo.remove(node)
            self._play(node, links, used)
            if self.rng.random() < 0.1:
                self.noise()

    def noise(self) -> None:
        op = self.rng.choice(("Add", "Mul", "If", "If", "Split", *(n.op for n in self.pair.pattern)))
        self.add(op, [self.tensor() for _ in range(self.rng.randint(1, 2))])

    def _decorate(self) -> None:
        rng, graph = self.rng, self.graph
        for name in self.tensors:
            value = helper.make_tensor_value_info(name, TensorProto.FLOAT, [2])
            if rng.random() < 0.35:
                graph.value_info.extend([value] * (2 if self.strange() else 1))
            if rng.random() < 0.06:
                graph.output.append(value)
        if self.rng.random() < 0.08 and graph.initializer:
            graph.output.append(
                helper.make_tensor_value_info(rng.choice(graph.initializer).name, TensorProto.FLOAT, [2])
            )
        if self.strange(2) and self.tensors:
            graph.quantization_annotation.append(onnx.TensorAnnotation(tensor_name=rng.choice(self.tensors)))
            values = helper.make_tensor(self._name("sparse"), TensorProto.FLOAT, [1], [1.0])
            indices = helper.make_tensor(self._name("indices"), TensorProto.INT64, [1], [0])
            graph.sparse_initializer.append(helper.make_sparse_tensor(values, indices, [1]))
        if self.strange() and graph.node:  # a second writer; it reads nothing, so there is still no cycle
            ops = [n.op for n in self.pair.pattern if n.op != "If"] or ["Add"]
            self.add(rng.choice(ops), [], rng.choice(self.tensors))

    def _reorder(self) -> None:
        how = self.rng.choice(("as made", "sorted", "sorted", "anyhow"))
        nodes = list(self.graph.node)
        if how == "as made":
            return
        self.rng.shuffle(nodes)
        if how == "sorted":
            nodes = topological(nodes)
        copies = [NodeProto.FromString(node.SerializeToString()) for node in nodes]
        del self.graph.node[:]
        self.graph.node.extend(copies)

    def make(self) -> GraphProto:
        instances = self.rng.randint(2, max(2, min(6, (LARGEST - 2) // len(self.pair.pattern))))
        for _ in range(instances):
            self.instance()
            if self.rng.random() < 0.4:
                self.noise()
        self._decorate()
        self._reorder()
        return self.graph


def topological(nodes: list[NodeProto]) -> list[NodeProto]:
    """A topological order that follows the given one where it can."""
    todo, result = list(nodes), []
    while todo:
        pending = {name for node in todo for name in node.output if name}
        ready = next((n for n in todo if not reads(n) & (pending - set(n.output))), todo[0])
        todo.remove(ready)
        result.append(ready)
    return result


def random_graph(rng: random.Random, pattern: Sequence[str]) -> GraphProto:
    return GraphMaker(rng, pattern).make()
