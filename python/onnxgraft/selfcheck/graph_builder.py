"""Random graphs around patterns: occurrences that overlap, near misses, other readers, nested bodies, outputs.

The names in every graph are valid: each tensor has one writer, the nodes are in topological order, and each input
exists. Names do not follow the order, and the nodes of several occurrences are mixed.
"""

from __future__ import annotations

import random
from collections.abc import Sequence

from onnx import GraphProto, NodeProto, TensorProto, ValueInfoProto, helper, numpy_helper

from onnxgraft.catalogue.notation import PatternNode, read_pattern
from onnxgraft.graph.names import reads
from onnxgraft.selfcheck.furnishing import Furnisher

_NOISE = ("Relu", "Add", "Mul", "Sigmoid", "Identity", "If")
_WORDS = ("conv", "layer", "x", "out", "act", "block")


class GraphBuilder:
    """One graph. `spoil` is how often a node of an occurrence differs from its pattern."""

    def __init__(self, rng: random.Random) -> None:
        self.rng = rng
        self.graph = GraphProto(name="random")
        self.furnisher = Furnisher(rng)
        self.spoil = rng.choice((0.0, 0.0, 0.05, 0.2))
        self.overlap = rng.choice((0.0, 0.1, 0.4))
        self.products = rng.choice((0.0, 0.0, 0.0, 0.95))  # how often data comes from a gate on a dequantized tensor
        self._tensors: list[str] = []
        self._constants: dict[tuple[str, int, bool, int], list[str]] = {}
        self._writer: dict[str, str] = {}
        self._names = rng.randrange(5_000)

    def build(self, patterns: Sequence[Sequence[str]]) -> GraphProto:
        """A graph with some occurrences of each pattern."""
        for pattern in patterns:
            for _ in range(self.rng.randint(1, 3)):
                self._occurrence(read_pattern(pattern))
                if self.rng.random() < 0.3:
                    self._noise(read_pattern(pattern))
        self._read_results()
        self._finish()
        return self.graph

    def _name(self, stem: str) -> str:
        self._names += 1
        return f"{stem}_{self._names * 7919 % 10_007}"  # unique, and in no order

    def _input(self) -> str:
        name = self._name("input")
        self.graph.input.append(self._value(name))
        self._tensors.append(name)
        return name

    def _value(self, name: str) -> ValueInfoProto:
        sizes = self.furnisher.sizes
        return helper.make_tensor_value_info(name, TensorProto.FLOAT, [1, sizes.channels, sizes.image, sizes.image])

    def _tensor(self) -> str:
        """A computed tensor, usually a recent one, or a new graph input."""
        if self.rng.random() < self.products:
            source = self._input()
            gate = self._add("TesselDequant", [source, self._constant("TesselDequant", 1, source, 2)])
            return str(self._add("Mul", [gate.output[0], source]).output[0])
        if not self._tensors or self.rng.random() < 0.5:
            return self._input()
        return self.rng.choice(self._tensors[-self.rng.randint(1, len(self._tensors)) :])

    def _constant(self, op: str, slot: int, first: str, count: int) -> str:
        """An initializer for that input; sometimes one that a node of the kind already reads."""
        quantized = self._writer.get(first) == "TesselQuant" and self.rng.random() < 0.95
        key = (op, slot, quantized, count)
        there = self._constants.setdefault(key, [])
        if there and self.rng.random() < 0.15:
            return self.rng.choice(there)
        there.append(self._name("w"))
        value = self.furnisher.initializer(op, slot, quantized=quantized, inputs=count)
        self.graph.initializer.append(numpy_helper.from_array(value, there[-1]))
        return there[-1]

    def _add(self, op: str, inputs: Sequence[str]) -> NodeProto:
        node = helper.make_node(op, inputs, [self._name(self.rng.choice(_WORDS))])
        node.name = self._name("node") if self.rng.random() < 0.9 else ""
        node.attribute.extend(helper.make_attribute(k, v) for k, v in self.furnisher.attributes(op).items())
        if op == "If":
            node.attribute.extend(helper.make_attribute(name, self._body()) for name in ("then_branch", "else_branch"))
        self._tensors.append(node.output[0])
        self._writer[node.output[0]] = op
        self.graph.node.append(node)
        return node

    def _body(self) -> GraphProto:
        """Reads tensors of the outer graph; an inner name differs from all other names."""
        local, result = self._name("local"), self._name("result")
        nodes = [helper.make_node("Identity", [self._tensor()], [local])]
        nodes.append(helper.make_node("Sum", [local, self._tensor()], [result]))
        return helper.make_graph(nodes, "body", [], [self._value(result)])

    def _occurrence(self, pattern: Sequence[PatternNode]) -> None:
        links: dict[str, str] = {}
        todo = list(pattern)
        while todo:
            pending = {node.output for node in todo}
            ready = [node for node in todo if not pending & {link.id for link in node.inputs}]
            node = ready[0] if ready else todo[0]
            todo.remove(node)
            links[node.output] = self._play(node, links)

    def _play(self, node: PatternNode, links: dict[str, str]) -> str:
        """Adds a node for one of the pattern, or uses an existing one; returns its output."""
        if self.rng.random() < self.overlap:
            for there in self.rng.sample(list(self.graph.node), len(self.graph.node)):
                fits = zip(node.inputs, there.input, strict=False)
                if there.op_type != node.op or len(there.input) != len(node.inputs):
                    continue
                if there.output[0] not in links.values() and all(links.get(i.id, name) == name for i, name in fits):
                    links.update((i.id, name) for i, name in zip(node.inputs, there.input, strict=False))
                    return there.output[0]
        count = len(node.inputs)
        for slot, link in enumerate(node.inputs):
            if link.id not in links:
                first = links.get(node.inputs[0].id, "")
                links[link.id] = self._constant(node.op, slot, first, count) if link.initializer else self._tensor()
        inputs = [links[link.id] for link in node.inputs]
        if node.rest:
            last = self.rng.choice((count + 1, count + 2))
            first = inputs[0] if inputs else ""
            inputs += [""] * (last - count) + [self._constant(node.op, last, first, last + 1)]
        return self._add(node.op, self._spoiled(inputs)).output[0]

    def _spoiled(self, inputs: list[str]) -> list[str]:
        if not inputs or self.rng.random() >= self.spoil:
            return inputs
        how = self.rng.choice(("swap", "drop", "computed", "more"))
        if how == "swap":
            self.rng.shuffle(inputs)
        elif how == "drop" and len(inputs) > 1:
            inputs.pop()
        elif how == "computed":
            inputs[-1] = self._tensor()
        else:
            inputs.append(self._tensor())
        return inputs

    def _noise(self, pattern: Sequence[PatternNode]) -> None:
        op = self.rng.choice((*_NOISE, self.rng.choice(pattern).op))
        if op == "Conv":
            self._convolution(self._tensor())
        else:
            self._add(op, [self._tensor() for _ in range(self.rng.randint(1, 2))])

    def _convolution(self, source: str) -> None:
        weight = self._constant("Conv", 1, source, 3)
        bias = [self._constant("Conv", 2, source, 3)] if self.rng.random() < 0.7 else []
        self._add("Conv", [source, weight, *bias])

    def _read_results(self) -> None:
        """Readers of the outputs of the occurrences: convolutions after quantize nodes."""
        read = {name for node in self.graph.node for name in reads(node)}
        for name in [name for name in self._tensors if name not in read]:
            if self._writer.get(name) == "TesselQuant":
                for _ in range(self.rng.choice((0, 1, 1, 2))):
                    self._convolution(name)
            elif self.rng.random() < 0.4:
                self._add(self.rng.choice(("Relu", "Identity")), [name])

    def _finish(self) -> None:
        rng, graph = self.rng, self.graph
        read = {name for node in graph.node for name in reads(node)}
        written = [node.output[0] for node in graph.node]
        for name in written:
            if name not in read or rng.random() < 0.03:
                graph.output.append(self._value(name))
        graph.value_info.extend(self._value(name) for name in written if rng.random() < 0.5)
        for name in [v.name for v in graph.input if v.name not in read]:
            graph.input.remove(next(v for v in graph.input if v.name == name))
        graph.value_info.extend(value for value in graph.input if rng.random() < 0.5)
        if rng.random() < 0.7:
            _mix(rng, graph)


def _mix(rng: random.Random, graph: GraphProto) -> None:
    """Another topological order of the nodes, at random."""
    todo, order = list(graph.node), []
    while todo:
        pending = {name for node in todo for name in node.output}
        ready = [node for node in todo if not pending & reads(node)]
        order.append(rng.choice(ready))
        todo.remove(order[-1])
    copies = [NodeProto.FromString(node.SerializeToString()) for node in order]
    del graph.node[:]
    graph.node.extend(copies)


def random_graph(rng: random.Random, patterns: Sequence[Sequence[str]]) -> GraphProto:
    """A graph around one pattern, sometimes with a second one."""
    chosen = rng.sample(list(patterns), min(len(patterns), rng.choice((1, 1, 2))))
    return GraphBuilder(rng).build(chosen)
