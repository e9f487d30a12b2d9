"""`diff` names planted differences and distinguishes renaming from change."""

from pathlib import Path
from typing import Any

import numpy as np
import onnx
import pytest
from onnx import helper, numpy_helper

from helpers.small_graphs import model_of, ones, rename_tensors
from onnxgraft.comparison import diff

LINES = ["Relu x -> a", "Conv a w -> b", "Relu b -> c", "Conv b v -> d", "Add c d -> e", "Sigmoid e -> y"]


def model(lines: list[str] = LINES, weight: float = 1.0) -> onnx.ModelProto:
    tensors = {"w": weight * ones(2, 2, 1, 1), "v": ones(2, 2, 3, 3)}
    return model_of(lines, inputs=["x"], outputs=["y"], tensors=tensors)


def renamed(made: onnx.ModelProto) -> onnx.ModelProto:
    """Every tensor and node under another name, initializers included."""
    made = onnx.ModelProto.FromString(made.SerializeToString())
    rename_tensors(made.graph, "{}'")
    for node in made.graph.node:
        node.name += "'"
    return made


def test_names_and_order_are_no_difference() -> None:
    after = renamed(model([*LINES[:2], LINES[3], LINES[2], *LINES[4:]]))
    found = diff(model(), after)
    assert not found.regions
    assert not found.initializers
    outputs = [(change.name, change.before, change.after) for change in found.outputs]
    assert outputs == [("y", "float32", None), ("y'", None, "float32")]
    assert diff(model(), model()).is_empty


@pytest.mark.parametrize(
    ("lines", "regions"),
    [
        (["Relu x -> a", "Conv a w -> b", "Relu b -> c", "Conv b v -> d", "Add c d -> y"], [("", "Sigmoid", "")]),
        (["Relu x -> a", "Conv a w -> b", "Tanh b -> c", *LINES[3:]], [("Tanh", "Relu", "")]),
        (["Clip x -> a", *LINES[1:4], "Add d c -> e", "Sigmoid e -> y"], [("Clip", "Relu", ""), ("", "", "Add")]),
        (["Relu x -> a", "Q a -> q", "Conv q w -> r", "D r -> b", *LINES[2:]], [("Q D", "", "Conv")]),
    ],
)
def test_regions(lines: list[str], regions: list[tuple[str, str, str]]) -> None:
    found = diff(model(), model(lines))
    grouped = [
        tuple(
            " ".join(node.op_type for node in nodes)
            for nodes in (region.added, region.removed, [change.after for change in region.changes])
        )
        for region in found.regions
    ]
    assert grouped == regions
    assert found.nodes_after == found.unchanged + sum(len(region.after.nodes) for region in found.regions)
    assert found.nodes_before == found.unchanged + sum(len(region.before.nodes) for region in found.regions)


def with_weight(values: Any) -> Any:
    return lambda made: made.graph.initializer[0].CopyFrom(numpy_helper.from_array(values, "w"))


def other_attribute(made: onnx.ModelProto) -> None:
    made.graph.node[1].attribute.append(helper.make_attribute("group", 2))


def swapped_operands(made: onnx.ModelProto) -> None:
    for index, name in ((2, "d"), (3, "c")):
        made.graph.node[index].output[0] = name


def constant_node(made: onnx.ModelProto) -> None:
    tensor = made.graph.initializer.pop(0)
    made.graph.node.insert(0, helper.make_node("Constant", [], ["w"], value=tensor))


def other_opset(made: onnx.ModelProto) -> None:
    made.opset_import[0].version = 18


@pytest.mark.parametrize(
    ("change", "text"),
    [
        (with_weight(1.5 * ones(2, 2, 1, 1)), "initializer 'w': float32[2,2,1,1] -> float32[2,2,1,1], other values"),
        (with_weight(np.ones((2, 2, 1, 1), np.int8)), "region 1: changed Conv 'node_1'"),
        (other_attribute, "region 1: changed Conv 'node_1'"),
        (constant_node, "6 -> 7 nodes: 0 removed, 0 added, 0 changed in 0 regions, 6 unchanged (Constant +1)"),
        (swapped_operands, "region 1: changed Add 'node_4'"),
        (other_opset, "operator set ai.onnx: 17 -> 18"),
    ],
)
def test_planted_differences_are_named(change: Any, text: str) -> None:
    after = model()
    change(after)
    assert text in str(diff(model(), after))


def test_external_data_is_told_by_its_place(tmp_path: Path) -> None:
    onnx.save_model(model(), tmp_path / "m.onnx", save_as_external_data=True, location="w.data", size_threshold=0)
    first, second = (onnx.load(tmp_path / "m.onnx", load_external_data=False) for _ in range(2))
    (tmp_path / "w.data").unlink()
    assert diff(first, second).is_empty
    second.graph.initializer[1].external_data[1].value = "4096"
    assert [change.name for change in diff(first, second).initializers] == ["v"]


def test_bytes_in_two_data_files_are_compared(tmp_path: Path) -> None:
    sides = []
    for number, weight in enumerate((1.0, 1.0, 2.0)):
        folder = tmp_path / str(number)
        folder.mkdir()
        data = f"w{number}.data"
        onnx.save_model(
            model(weight=weight), folder / "m.onnx", save_as_external_data=True, location=data, size_threshold=0
        )
        sides.append((onnx.load(folder / "m.onnx", load_external_data=False), folder))
    (a, at_a), (b, at_b), (c, at_c) = sides
    assert diff(a, b, folder_before=at_a, folder_after=at_b).is_empty
    assert [change.name for change in diff(a, c, folder_before=at_a, folder_after=at_c).initializers] == ["w"]
    assert not diff(a, b).is_empty
