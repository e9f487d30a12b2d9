"""Unusual graphs with every class: what a class does not replace stays as it was, byte for byte.

ONNXGRAFT_SCALE makes the large graphs larger by that factor: 10 for a chain of a million nodes.
"""

import os
from collections import Counter
from collections.abc import Callable
from typing import Any, cast

import numpy as np
import pytest
from onnx import AttributeProto, GraphProto, NodeProto, TensorProto, TypeProto, helper, numpy_helper

from helpers.checks import dangling, writers
from helpers.classes import CLASSES, apply, class_graph, patterns
from helpers.occurrences import occurrence
from helpers.small_graphs import graph_of, operators, rename_tensors
from onnxgraft import quant
from onnxgraft.abstract_transformation import AbstractTransformation, nearest_miss
from onnxgraft.selfcheck.soundness import problems

UNKNOWN = b"\xaa\x3f\x03abc"  # field 1000 + 21, three bytes: from a future version of the format
SCALE = int(os.environ.get("ONNXGRAFT_SCALE", "1"))
Edit = Callable[[GraphProto], None]


def backwards(graph: GraphProto) -> None:
    nodes = [NodeProto.FromString(node.SerializeToString()) for node in reversed(graph.node)]
    del graph.node[:]
    graph.node.extend(nodes)


def cycle(graph: GraphProto) -> None:
    graph.node.add(op_type="Add", input=[graph.node[-1].output[0], "round"], output=["round"])
    graph.node.add(op_type="Relu", input=["there"], output=["back"])
    graph.node.add(op_type="Relu", input=["back"], output=["there"])


def tensor_names(form: str) -> Edit:
    return lambda graph: rename_tensors(graph, form)


def nested(depth: int) -> Edit:
    def edit(graph: GraphProto) -> None:
        read = graph.node[0].output[0]
        body = graph_of([f"Relu {read} -> inner"], outputs=["inner"])
        for _ in range(depth - 1):
            node = helper.make_node("If", ["c"], ["inner"], then_branch=body, else_branch=body if depth < 5 else None)
            body = helper.make_graph([node], "body", [], [helper.make_tensor_value_info("inner", 1, None)])
        graph.node.append(helper.make_node("If", ["c"], ["deep"], then_branch=body))

    return edit


def attributes_of_all_types(graph: GraphProto) -> None:
    tensor = helper.make_tensor("t", TensorProto.STRING, [2], cast(Any, [b"a\0b", b"\xc3\xbc"]))
    body = graph_of(["Relu a -> b"])
    kind = helper.make_tensor_type_proto(TensorProto.FLOAT, ["n", 3])
    single: list[Any] = [1.5, 3, b"a\0\xff", tensor, body, kind]
    values = [*single, "text", *([value] for value in single)]
    for node in [*graph.node, graph.node.add(op_type="Own", domain="own")]:
        for number, value in enumerate(values):
            node.attribute.append(helper.make_attribute(f"own_{number}", value))
        node.attribute.add(name="own_reference", ref_attr_name="outer", type=AttributeProto.FLOAT)
        node.attribute.add(name="own_nothing")


def unknown_fields(graph: GraphProto) -> None:
    elements: list[Any] = [*graph.node, *graph.initializer, *graph.input, *graph.output, *graph.value_info]
    for element in elements:
        element.MergeFromString(UNKNOWN)
    graph.MergeFromString(UNKNOWN)


def nothing_at_all(graph: GraphProto) -> None:
    graph.node.extend([NodeProto(), NodeProto(op_type="Relu"), NodeProto(output=[""]), NodeProto(input=["", ""])])
    graph.initializer.add()
    graph.input.add()
    graph.value_info.add().type.CopyFrom(TypeProto())


KINDS: dict[str, Edit] = {
    "backwards": backwards,
    "cyclic": cycle,
    "names not in ASCII": tensor_names("\u00e4\u6f22\U0001f600{}"),
    "names with NUL": tensor_names("{0}\0{0}"),
    "names of blanks and slashes": tensor_names(" /{}\n{{:0,1i->2}}"),
    "long names": tensor_names("{}" + "x" * 70_000),
    "deep bodies": nested(10),
    "broad bodies": nested(4),
    "attributes of all types": attributes_of_all_types,
    "unknown fields": unknown_fields,
    "empty elements": nothing_at_all,
    "nothing": lambda graph: graph.Clear(),
}


def contents(graph: GraphProto) -> Counter[bytes]:
    """All nodes, bytes for bytes."""
    return Counter(node.SerializeToString(deterministic=True) for node in graph.node)


@pytest.mark.parametrize("kind", KINDS)
@pytest.mark.parametrize("name", CLASSES)
def test_every_class_on_every_kind(name: str, kind: str) -> None:
    for before in (occurrence(patterns(name)[0]), class_graph(name, 1)):
        KINDS[kind](before)
        graph = GraphProto.FromString(before.SerializeToString())
        outcome = apply(name, graph)
        assert outcome == 0 or before.node
        if outcome == 0:
            assert graph.SerializeToString(deterministic=True) == before.SerializeToString(deterministic=True)
        assert "order" in problems(before) or "order" not in problems(graph)
        assert all(count <= max(1, writers(before)[written]) for written, count in writers(graph).items())
        if isinstance(outcome, int):
            assert dangling(graph) <= dangling(before)
        gone = contents(before) - contents(graph)
        assert sum(gone.values()) <= 20 * (outcome if isinstance(outcome, int) else 20)
        if kind == "unknown fields":
            for element in (*graph.input, *graph.output, *graph.value_info, graph):
                assert UNKNOWN in element.SerializeToString()
            plain = sum(UNKNOWN not in node.SerializeToString() for node in graph.node)
            assert not isinstance(outcome, int) or plain <= 6 * outcome


def test_a_long_chain() -> None:
    count = 100_000 * SCALE
    nodes = [NodeProto(op_type="Relu", input=[f"x{k}"], output=[f"x{k + 1}"]) for k in range(count)]
    pattern = ["Relu:0->1", "Relu:1->2"]
    for step in (1, -1):
        graph = GraphProto(node=nodes[::step])
        assert nearest_miss(graph, [*pattern, "Neg:2->3"], []) is not None
        assert nearest_miss(graph, pattern, ["#0", "#1"]) is None
        replace_all = AbstractTransformation()._replace_all_isomorphic_sub_graphs
        assert replace_all(graph, pattern, ["Clip:0->9", "#1:9->2"]) == count // 2
        assert operators(graph) == " ".join(["Clip Relu"] * (count // 2))
        assert graph.node[-1].output[0] == f"x{count}"


def test_one_tensor_with_many_readers() -> None:
    count = 50_000 * SCALE
    graph = GraphProto(node=[NodeProto(op_type="Relu", input=["x"], output=[f"y{k}"]) for k in range(count)])
    replace_all = AbstractTransformation()._replace_all_isomorphic_sub_graphs
    assert replace_all(graph, ["Relu:0->1"], ["Neg:0->2", "#0:2->1"]) == count
    assert operators(graph) == " ".join(["Neg Relu"] * count)


def test_many_initializers() -> None:
    """Each of them is looked up, recreated and removed."""
    count = 2000 * SCALE
    weight = np.zeros((1, 1, 1, 1), np.float32)
    graph = GraphProto(initializer=[numpy_helper.from_array(weight, f"w{k}") for k in range(50 * count)])
    for k in range(count):
        graph.node.add(op_type="Conv", input=[f"x{k}", f"w{50 * k}"], output=[f"x{k + 1}"])
    assert quant.QuantConvTransformation().apply(graph) == count
    assert len(graph.initializer) == 50 * count + count
    assert dangling(graph) == {"x0"}
