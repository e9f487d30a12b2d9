"""Where patterns match, why they do not, and the hints."""

from pathlib import Path
from typing import Any

import numpy as np
import onnx
import pytest
from onnx import GraphProto, TensorProto, helper, numpy_helper

from helpers.small_graphs import graph_of
from onnxgraft.abstract_transformation import AbstractTransformation, nearest_miss
from onnxgraft.catalogue import find_row
from onnxgraft.errors import ModelFileError, UnknownTransformationError
from onnxgraft.explaining import explain as explain_nodes
from onnxgraft.matching import explain, find

CONV = ["Conv:0,1i->2"]
TWO = ["Conv:0,1i->2", "Relu:2->3"]
JOIN = ["Relu:0->1", "Sigmoid:2->3", "Mul:1,3->4"]
PAIR = ["Concat:1,2->3", "Relu:0->1", "Sigmoid:0->2"]
RESIZE = ["Resize:0,1i,2i,3i->4"]
POOLS = ["MaxPool:0->1", "MaxPool:1->2", "Concat:0,1,2->3"]
QUANTS = ["TesselQuant:0->1", "Conv:1,2i->3", "TesselQuant:0->4"]
SIZES = ["Slice:0,1i->2", "Concat:2,3i,4i->5"]
POOL = ["GlobalAveragePool:0->1"]

# Pattern, nodes ("w…" are initializers, "x…" inputs, "y…" outputs), reason, part of the hint.
MISSES: list[tuple[list[str], str, str, str]] = [
    (CONV, "Constant -> c; Conv x c -> y", "not_initializer",
     "the weight 'c' is the output of a Constant node: prepare"),
    (CONV, "Identity w -> c; Identity c -> d; Conv x d -> y", "not_initializer", "an Identity of 'w': prepare"),
    (CONV, "Transpose w -> c; Conv x c -> y", "not_initializer", "a Transpose of the constant 'w': prepare"),
    (CONV, "DequantizeLinear w w1 -> c; Conv x c -> y", "not_initializer", "already quantized"),
    (CONV, "Neg w -> c; Abs c -> d; Conv x d -> y", "not_initializer", "computed from constants by an Abs"),
    (CONV, "Conv x x1 -> y", "not_initializer", "'x1' is an input of the graph without a value"),
    (CONV, "Conv x w w1 -> y", "input_count",
     "every Conv of the graph is one with bias (3 inputs), the pattern expects 2"),
    (CONV, "QLinearConv x w -> y", "missing_operator", "already quantized: the graph has QLinearConv nodes"),
    (["MatMul:0,1i->2"], "MatMul x x1 -> y", "not_initializer", "'x1' is an input"),
    (["MatMul:0,1i->2"], "Relu x -> a; Neg x -> b; MatMul a b -> y", "not_initializer", "both inputs of this MatMul"),
    (["Add:0,1i->2"], "Add w x -> y", "not_initializer", "inputs swapped: 'w' is input 0, the pattern expects it at 1"),
    (["Sub:0,1i->2"], "Sub w x -> y", "not_initializer", "the initializer 'w' is input 0 of the Sub"),
    (JOIN, "Relu x -> a; Sigmoid x -> b; Mul b a -> y", "other_position", "inputs swapped: 'a' is input 1 of the Mul"),
    (PAIR, "Relu x -> a; Sigmoid x -> b; Concat b a -> y", "wrong_operator",
     "has the Relu at input 1, the pattern expects"),
    (TWO, "Conv x w -> a; Neg a -> y1; Relu a -> y", "read_elsewhere", "'a' is also read by Neg node 1 (writes 'y1')"),
    (TWO, "Conv x w -> ya; Relu ya -> y", "graph_output", "'ya' is a graph output"),
    (TWO, "Conv x w -> a; Relu a -> y; If x a -> y1", "read_by_body",
     "a nested graph of If node 2 (writes 'y1') reads 'a'"),
    (TWO, "Conv x w -> a; Identity a -> b; Relu b -> y", "wrong_operator", "the Identity is between"),
    (TWO, "Conv x w -> a; LeakyRelu a -> y; Relu x -> y1", "wrong_operator", "the activation here is LeakyRelu"),
    (TWO, "Conv x w -> a; LeakyRelu a -> y", "missing_operator", "this graph has other activations: LeakyRelu"),
    (QUANTS, "Conv x w -> y", "missing_operator", "nothing is quantized yet: run quant_conv first"),
    (QUANTS, "Relu x -> y", "missing_operator", "the graph has no Conv either"),
    (QUANTS, "TesselQuant x -> a; Conv a w -> b", "node_used_twice", "'x' has only one TesselQuant reader"),
    (RESIZE, "Resize x   w -> y", "input_omitted", "omits 'roi' next to its sizes: prepare"),
    (RESIZE, "Resize x  w -> y", "input_count", "this Resize has scales, the pattern expects sizes"),
    (POOLS, "MaxPool x -> a; MaxPool x -> b; Concat x a b -> y", "too_few_readers", "are side by side on 'x'"),
    (SIZES, "Slice x w -> a; Concat a w2 -> y", "input_count", "one constant of two elements"),
    (POOL, "ReduceMean x w_axes -> y", "missing_operator", "a ReduceMean over height and width does the same"),
    (["Relu:0->1", "Relu:1->2"], "Relu x -> y", "graph_output", "'y' is a graph output"),
]  # fmt: skip


# Pattern, replacement, nodes, the end of the sentence: misses without a hint.
SENTENCES: list[tuple[list[str], list[str], str, str]] = [
    (["MaxPool:0->1"], [], "MaxPool x -> a b", "MaxPool node 0 (writes 'a') does not have exactly one output"),
    (["Relu:0->1"], [], "Neg x -> a; Relu x -> a", "(Relu): an earlier node also writes 'a'"),
    (["Resize:0,~i->3"], [], "Resize x r -> b", "input 1 of Resize node 0 (writes 'b'), 'r', is computed: all inputs "
     "from this one on must be initializers"),
    (["Mul:1,1->3"], [], "Mul x x1 -> b", "Mul node 0 (writes 'b') has a tensor other than 'x1' at input 1"),
    (["Relu:0->1", "Mul:1,2->3"], ["#1:0,2->3"], "Relu x -> a; Mul a a -> b",
     "two ids of the pattern would both be 'a', and the replacement removes the node that writes it"),
    (["Relu:0->1", "Mul:1,2->3"], ["#1:0,2->3"], "Relu x -> a; Mul x a -> b",
     "Mul node 1 (writes 'b') reads 'a', but not at input 0"),
    (["Conv:1,2i->3", "Relu:0->1"], ["#0:0,2i->3"], "Conv x w -> b; Relu b -> c", "(Relu): no node writes 'x'"),
    (["A:1->2", "B:3->4", "C:5->6"], ["C:5->2", "#1", "A:1->6"], "A x -> a; N a -> b; B b -> c; N c -> d; C d -> e",
     "would close a cycle"),
    (["A:1->2", "B:3->4"], ["A:3->2", "B:1->4"], "A x -> a; If x q -> z; If x r -> y; If x a -> b; B b -> c",
     "would close a cycle"),
    # The furthest attempt, and the first among equals.
    (["Relu:0->1", "Conv:1,2i->3"], ["#1:0,2i->3"],
     "Relu x -> y; Relu x -> b; Conv b v -> c; Relu x -> d; Conv d u -> e; Relu x -> y1",
     "1 of 2 pattern nodes matched, the last one Relu node 1 (writes 'b'); pattern node 1 (Conv): "
     "input 1 of Conv node 2 (writes 'c'), 'v', is not an initializer of the graph"),
]  # fmt: skip


def small_graph(lines: str) -> GraphProto:
    """Of lines such as "Conv x w -> y"; the body of an `If` reads its last input."""
    graph = graph_of(lines.split("; "))
    names = dict.fromkeys(name for node in graph.node for name in (*node.input, *node.output) if name)
    for node in graph.node:
        if node.op_type == "If":
            body = graph_of([f"Neg {node.input.pop()} -> inner"], outputs=["inner"])
            node.attribute.append(helper.make_attribute("then_branch", body))
    for name in names:
        if name[0] == "w":
            values = {"w2": [4, 4], "w_axes": [-1, 2]}.get(name, [1])
            graph.initializer.append(numpy_helper.from_array(np.array(values, np.int64), name))
        elif name[0] in "xy":
            value = helper.make_tensor_value_info(name, TensorProto.FLOAT, None)
            (graph.input if name[0] == "x" else graph.output).append(value)
    return graph


class Own(AbstractTransformation):
    """Whatever pattern it is made with; nodes are removed except for the first tensors."""

    def __init__(self, *pairs: tuple[list[str], list[str]]) -> None:
        self.pairs = pairs

    def apply(self, graph: GraphProto, debug: bool = False) -> int:
        return sum(self._replace_all_isomorphic_sub_graphs(graph, *pair, debug=debug) for pair in self.pairs)


FACTS = "{0.matched} of", " node {0.last_node} (", "node {0.pattern_node} (", "'{0.tensor}'", "node {0.reader} ("


@pytest.mark.parametrize(("pattern", "lines", "reason", "words"), MISSES)
def test_a_hint_says_what_would_help(pattern: list[str], lines: str, reason: str, words: str) -> None:
    graph = small_graph(lines)
    before = graph.SerializeToString()
    last = "3" if pattern is PAIR else pattern[-1].rpartition("->")[2]
    outside = "0,3i" if pattern is SIZES else "0"
    (explanation,) = explain(graph, Own((pattern, [f"New:{outside}->{last}"])))
    assert (explanation.reason, explanation.matches) == (reason, 0)
    assert words in (explanation.hint or ""), explanation
    for form in FACTS:
        fact = form.format(explanation)
        assert reason == "missing_operator" or "None" in fact or fact in explanation.text
    # A single node gives the same answer, with nothing left out; no node has a place in the pattern.
    nodes = explain_nodes(graph, Own((pattern, [f"New:{outside}->{last}"])), node="*", best=None)
    answers = [answer for node in nodes for answer in node.answers]
    assert {answer.outcome for answer in answers} <= {"miss"}
    assert reason == "missing_operator" or reason in {answer.reason for answer in answers}
    assert not any({"{", "}"} & set(answer.text) for answer in answers)
    assert graph.SerializeToString() == before


@pytest.mark.parametrize(("pattern", "replacement", "lines", "end"), SENTENCES)
def test_a_sentence_names_the_place(pattern: list[str], replacement: list[str], lines: str, end: str) -> None:
    miss = nearest_miss(small_graph(lines), pattern, replacement)
    assert miss is not None
    assert miss["text"].endswith(end)


def test_find_and_explain_take_models_graphs_names_classes_rows(repository: Path) -> None:
    model = onnx.load(repository / "examples/models/resnet18_timm_c11.onnx")
    row = find_row("quant_conv")
    answers: list[Any] = [
        find(graph, transformation)
        for graph, transformation in ((model, "quant_conv"), (model.graph, row.cls), (model, row.cls()), (model, row))
    ]
    assert all(answer == answers[0] for answer in answers)
    assert [match.pattern_index for match in answers[0]] == [0] * 21
    first = answers[0][0]
    assert (first.transformation, first.nodes, set(first.links)) == ("quant_conv", (0,), {"0", "1", "2", "4"})
    assert "Conv node 0" in first.node_texts[0]
    with_bias, without = explain(model, "quant_conv")
    assert (with_bias.matches, with_bias.reason, with_bias.hint) == (21, "matches", None)
    assert (without.matches, without.reason, without.node, without.input) == (0, "input_count", 0, None)
    row.apply(model.graph)
    assert (
        explain(model, "quant_conv")[0].hint
        == "already quantized: 21 of 21 weights are INT8, so these matches are refused"
    )
    assert [e.pattern_index for e in explain(model, Own((["Cos:0->1"], []), (["Sin:0->1"], [])))] == [0, 1]


@pytest.mark.parametrize(
    ("graph", "transformation", "error"),
    [
        (GraphProto(), "quant_con", UnknownTransformationError),
        (GraphProto(), 3, TypeError),
        ("none.onnx", "quant_conv", ModelFileError),
        (3, "quant_conv", TypeError),
        (GraphProto(), Own((["Relu 0->1"], [])), ValueError),
    ],
)
def test_what_is_neither_graph_nor_transformation(graph: Any, transformation: Any, error: type[Exception]) -> None:
    for function in (find, explain):
        with pytest.raises(error):
            function(graph, transformation)
