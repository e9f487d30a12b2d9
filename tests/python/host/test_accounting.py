"""Every operator that could be worth quantizing is INT8 or has a reason."""

import random
from collections.abc import Callable
from pathlib import Path
from typing import Any

import numpy as np
import onnx
import pytest
from onnx import GraphProto, TensorProto, helper, numpy_helper

import onnxgraft
from helpers.small_graphs import graph_of, model_of, ones
from onnxgraft.catalogue import rows
from onnxgraft.recipe_book import load_recipes
from onnxgraft.report.records import Report
from onnxgraft.selfcheck.graph_builder import random_graph

QUANTIZE = ["quant_conv", "quant_gemm", "quant_matmul"]
WEIGHT = ones(2, 2, 1, 1)
ROOT = Path(__file__).parents[3]
COUNTED = ("Conv", "ConvTranspose", "Gemm", "MatMul")


def account_after(graph: GraphProto, names: list[str] = QUANTIZE, **options: Any) -> Any:
    return onnxgraft.rewrite(graph, names, prepare=False, **options).account


# Line of the operator -> the reason and a part of its text.
REASONS: dict[str, tuple[list[str], str, str]] = {
    "computed weight": (["Mul w w -> v", "Conv x v -> y"], "computed_weight", "'v' is written by Mul 'node_0'"),
    "weight from outside": (["Conv x x -> y"], "computed_weight", "'x' is an input of the graph"),
    "computed bias": (["Relu b -> c", "Conv x w c -> y"], "computed_bias", "'c' is written by Relu 'node_0'"),
    "no bias name": (["MatMul x x -> y"], "both_computed", "both operands are computed"),
    "weight first": (["MatMul w x -> y"], "weight_first", "the patterns expect it as the second"),
    "integers": (["Conv x i -> y"], "element_type", "'i' has type UINT8"),
    "other operator": (["ConvTranspose x w -> y"], "unsupported", "no transformation quantizes ConvTranspose"),
    "recurrent": (["LSTM x w w -> y"], "unsupported", "no transformation quantizes LSTM"),
}


@pytest.mark.parametrize(("lines", "reason", "words"), REASONS.values(), ids=REASONS)
def test_reasons_name_what_stands_in_the_way(lines: list[str], reason: str, words: str) -> None:
    tensors = {"w": WEIGHT, "b": ones(2), "i": np.ones((2, 2, 1, 1), np.uint8)}
    graph = graph_of(lines, inputs={"x": [1, 2, 4, 4]}, outputs=["y"], tensors=tensors)
    if reason == "element_type":
        graph.node[0].domain = ""
        graph.node[0].output[:] = ["y", "z"]  # no pattern has two outputs
    account = account_after(graph)
    (left,) = account.left
    if reason != "element_type":
        assert (left.reason, words in left.text) == (reason, True), left
    else:
        assert left.reason == "form"


def test_what_the_run_decides(tmp_path: Path) -> None:
    """Not run, excluded, refused by a user's subclass, in other domains, nested graphs and functions."""

    class Picky(rows()["quant_conv"].cls):  # type: ignore[misc]
        def _on_replace_subgraph(self, graph: Any, nodes: Any, *rest: Any, **named: Any) -> Any:
            if nodes[0].name == "node_1":
                named["refusal_reasons"].append("too small")
                return False
            return super()._on_replace_subgraph(graph, nodes, *rest, **named)

    body = graph_of(["Conv x w -> inner"], inputs=[], outputs=["inner"])
    lines = ["Conv x w -> a", "Conv a w -> b", "Conv b w -> c", "If x -> d", "Gemm c w2 b2 -> e", "Conv d w -> y"]
    model = model_of(
        lines, inputs={"x": [1, 2, 4, 4]}, outputs=["y", "e"], tensors={"w": WEIGHT, "w2": ones(2, 2), "b2": ones(2)}
    )
    model.graph.node[3].attribute.append(helper.make_attribute("then_branch", body))
    model.graph.node[5].domain = "com.example"
    model.functions.append(
        helper.make_function("f", "Local", ["p"], ["q"], [helper.make_node("MatMul", ["p", "p"], ["q"])], [])
    )
    report = onnxgraft.rewrite(model, Picky, prepare=False, exclude=["node_2"])
    assert report.account is not None
    reasons = {(left.name, left.place): (left.reason, left.text) for left in report.account.left}
    assert reasons[("node_1", "")] == ("refused", "too small")
    assert reasons[("node_2", "")][0] == "excluded"
    assert reasons[("node_4", "")] == ("not_run", "'quant_gemm' was not run")
    assert [left.reason for left in report.account.left] == [
        "refused", "excluded", "nested_body", "not_run", "other_domain", "function",
    ]  # fmt: skip
    assert "quant_conv: 1 refused: too small" in str(report)
    assert Report.from_json(report.to_json()) == report


def test_already_int8_is_not_refused() -> None:
    graph = graph_of(["Conv x w -> y"], inputs={"x": [1, 2, 4, 4]}, outputs=["y"], tensors={"w": WEIGHT})
    onnxgraft.rewrite(graph, "quant_conv", prepare=False)
    report = onnxgraft.rewrite(graph, "quant_conv", prepare=False)
    (step,) = report.steps
    assert (step.found, step.replaced, step.refused, step.done) == (1, 0, 0, 1)
    assert "already INT8: 1" in str(report)
    assert "INT8: 1 of 1 Conv" in str(report)


def _exclude_gemm(node: onnx.NodeProto) -> bool:
    return node.op_type != "Gemm"


CHOICES: dict[str, tuple[dict[str, list[str]], Callable[[onnx.NodeProto], bool]]] = {
    "glob": ({"exclude": ["/head/*"]}, lambda node: not node.name.startswith("/head/")),
    "operator": ({"exclude": ["op:Gemm"]}, _exclude_gemm),
    "input": ({"exclude": ["input:a"]}, lambda node: "a" not in node.input),
    "only": ({"only": ["/head/*"]}, lambda node: node.name.startswith("/head/")),
    "both": ({"only": ["/head/*"], "exclude": ["*2"]}, lambda node: node.name == "/head/1"),
}


@pytest.mark.parametrize(("options", "expected"), CHOICES.values(), ids=CHOICES)
def test_the_user_chooses(options: dict[str, list[str]], expected: Callable[[onnx.NodeProto], bool]) -> None:
    lines = ["Conv x w -> a", "Conv a w -> b", "Conv b w -> c", "Gemm c w2 b2 -> y"]
    tensors = {"w": WEIGHT, "w2": ones(2, 2), "b2": ones(2)}
    graph = graph_of(lines, inputs={"x": [1, 2, 4, 4]}, outputs=["y"], tensors=tensors)
    for node, name in zip(graph.node, ["/stem/0", "/head/1", "/head/2", "/fc"], strict=True):
        node.name = name
    wanted = {node.name for node in graph.node if expected(node)}
    onnxgraft.rewrite(graph, QUANTIZE, prepare=False, **options)  # type: ignore[arg-type]
    types = {tensor.name: tensor.data_type for tensor in graph.initializer}
    int8 = {node.name for node in graph.node if any(types.get(name) == TensorProto.INT8 for name in node.input)}
    assert int8 == wanted


def test_a_glob_that_meets_nothing_is_an_error_and_recipes_have_the_keys(tmp_path: Path) -> None:
    graph = graph_of(["Conv x w -> y"], inputs={"x": [1, 2, 4, 4]}, outputs=["y"], tensors={"w": WEIGHT})
    before = graph.SerializeToString()
    with pytest.raises(onnxgraft.UnknownNameError, match=r"'nod_0\*' matches no node .* did you mean node_0\?"):
        onnxgraft.rewrite(graph, "quant_conv", prepare=False, exclude=["nod_0*"])
    assert graph.SerializeToString() == before
    path = tmp_path / "own.toml"
    path.write_text('[mine]\ntransformations = ["quant_conv"]\nprepare = []\nexclude = ["node_0"]\n')
    report = onnxgraft.rewrite(graph, load_recipes(path)["mine"])
    assert (report.replaced, report.steps[0].patterns[1].reasons) == (0, {"excluded": 1})
    path.write_text('[mine]\ntransformations = ["quant_conv"]\nexclude = "node_0"\n')
    with pytest.raises(onnxgraft.RecipeFileError, match="key 'exclude': expected a list of globs"):
        load_recipes(path)


EXPORTS = [path for folder in ("tests", "examples") for path in sorted((ROOT / folder / "models").glob("*.onnx"))]


@pytest.mark.parametrize("path", EXPORTS, ids=lambda path: str(path.stem))
def test_no_operator_of_an_export_stays_without_a_reason(path: Path) -> None:
    """With the recipe of its family, with one transformation on the file as it is, and with none."""
    recipe = next(name for name in onnxgraft.recipes() if path.name.startswith(name[:6]))
    for names, options in ((recipe, {}), (["quant_conv"], {"prepare": False}), ([], {"prepare": False})):
        model = onnx.load(path)
        account = onnxgraft.rewrite(model, names, details="counts", **options).account  # type: ignore[arg-type]
        assert account is not None
        assert "unknown" not in account.reasons
        int8, in_float = (sum(getattr(one, kind) for one in account.operators.values()) for kind in ("int8", "float"))
        assert int8 + in_float == sum(node.op_type in COUNTED for node in model.graph.node)
        assert in_float == sum(not one.place for one in account.left)
        assert bool(int8) == (names == recipe or (bool(names) and "Conv" in account.operators))


def test_no_operator_of_a_random_graph_stays_without_a_reason() -> None:
    names = [name for name, row in rows().items() if row.is_own and name != "fuse_bn_quant"]
    patterns = [pattern for name in names for pattern, _ in rows()[name].pairs]
    for seed in range(60):
        graph = random_graph(random.Random(seed), patterns)
        report = onnxgraft.rewrite(graph, names, prepare=False, on_error="continue", details="counts")
        assert report.account is not None
        unknown = [left for left in report.account.left if left.reason == "unknown"]
        assert not unknown, (seed, unknown)
        counted = sum(one.int8 + one.float for one in report.account.operators.values())
        assert counted == sum(node.op_type in COUNTED for node in graph.node)


def test_multiply_adds() -> None:
    lines = ["Conv x w -> a", "ConvTranspose a t -> b", "Reshape b s -> c", "Gemm c g -> d", "MatMul d m -> y"]
    tensors = {"w": ones(4, 2, 3, 3), "t": ones(4, 3, 2, 2), "s": np.array([5, 12]), "g": ones(5, 7), "m": ones(7, 2)}
    model = model_of(lines, inputs={"x": [1, 2, 6, 6]}, outputs=["y"], tensors=tensors)
    for name, shape in {"a": [1, 4, 4, 4], "b": [1, 3, 8, 8], "c": [12, 5], "d": [12, 7], "y": [12, 2]}.items():
        model.graph.value_info.append(helper.make_tensor_value_info(name, TensorProto.FLOAT, shape))
    account = account_after(model.graph, ["replace_quant"])
    macs = {left.op_type: left.macs for left in account.left}
    assert macs == {
        "Conv": 4 * 4 * 4 * 2 * 9, "ConvTranspose": 4 * 4 * 4 * 3 * 4, "Gemm": 12 * 7 * 5, "MatMul": 12 * 2 * 7,
    }  # fmt: skip
    assert numpy_helper.to_array(model.graph.initializer[0]).nbytes == account.operators["Conv"].float_bytes
