"""Single nodes: their outcome, the reasons of a miss, and which ones a name selects."""

import json
import random
from collections import Counter
from pathlib import Path
from typing import Any

import numpy as np
import onnx
import pytest
from onnx import ModelProto, helper

from helpers.small_graphs import graph_of
from onnxgraft import explain, prepare, rewrite
from onnxgraft.abstract_transformation import AbstractTransformation
from onnxgraft.catalogue import find_row, rows
from onnxgraft.cli import main
from onnxgraft.errors import UnknownNameError, WrongUsageError
from onnxgraft.explaining import explain_in_turn
from onnxgraft.selfcheck.graph_builder import random_graph

EXAMPLE = "examples/models/resnet18_timm_c11.onnx"


class Picky(AbstractTransformation):
    """Two patterns for a `Relu`, the longer one first; it dislikes one tensor."""

    def apply(self, graph: onnx.GraphProto, debug: bool = False) -> int:
        pairs = (["Neg:0->1", "Relu:1->2"], ["New:0->2"]), (["Relu:0->1"], ["Other:0->1"])
        return sum(self._replace_all_isomorphic_sub_graphs(graph, *pair) for pair in pairs)

    def _on_replace_subgraph(self, graph: Any, replaced_nodes: Any, *found: Any, **kwargs: Any) -> bool:
        return "d" not in replaced_nodes[-1].output


def computed_weight() -> ModelProto:
    """A Conv with a computed weight, next to another."""
    weight, scale = np.ones((4, 4, 1, 1), np.float32), np.ones(1, np.float32)
    graph = graph_of(
        ["Mul w s -> w_scaled", "Conv x w_scaled -> a", "Conv a w -> y"],
        inputs={"x": [1, 4, 8, 8]},
        outputs=["y"],
        tensors={"w": weight, "s": scale},
    )
    for node, name in zip(graph.node, ("scale_w", "c[0]", "c[1]"), strict=True):
        node.name = name
    return helper.make_model(graph, opset_imports=[helper.make_opsetid("", 17)], ir_version=8)


def test_the_one_that_was_left_out() -> None:
    model = computed_weight()
    before = model.SerializeToString()
    (left,) = explain(model, "quant_conv", node="c[0]")
    assert left.in_float == "its weight 'w_scaled' is written by Mul 'scale_w'"
    nearest, other = left.answers
    assert nearest.text == (
        "input 1 'w_scaled' of Conv 'c[0]' is written by Mul 'scale_w', the pattern expects an initializer"
    )
    assert (nearest.outcome, nearest.reason, nearest.input, nearest.tensor) == (
        "miss", "not_initializer", 1, "w_scaled",
    )  # fmt: skip
    assert nearest.hint is not None
    assert other.text == "Conv 'c[0]' has 2 inputs, the pattern expects 3"
    (done,) = explain(model, "quant_conv", node="c[1]", best=1)
    assert (done.in_float, done.answers[0].outcome, done.left_out) == (None, "replaced", 1)
    # The whole catalogue: the same answer comes first, and the others are counted.
    (everywhere,) = explain(model, node="c[0]")
    assert everywhere.answers[0] == nearest
    assert len(everywhere.answers) == 3
    (everything,) = explain(model, node="c[0]", best=None)
    assert everything.left_out == 0
    assert len(everything.answers) == 3 + everywhere.left_out
    assert model.SerializeToString() == before


def test_which_nodes_are_meant() -> None:
    model = computed_weight()
    for name, meant in (
        ("c[0]", [1]), ("a", [1]), ("w", [0, 2]), ("x", [1]), ("c*", [1, 2]), ("w_*", [0]), (["y", "a"], [1, 2]),
    ):  # fmt: skip
        assert [one.node for one in explain(model, "quant_conv", node=name)] == meant, name
    for wrong in ("c[2]", ""):
        with pytest.raises(UnknownNameError):
            explain(model, "quant_conv", node=wrong)
    with pytest.raises(UnknownNameError, match=r"did you mean .*w_scaled"):
        explain(model, node="w_scale")
    with pytest.raises(WrongUsageError):
        explain(model)  # type: ignore[call-overload]
    (none,) = explain(model, "quant_gemm", node="a")
    assert none.answers == ()
    assert "none of the patterns has an operator Conv" in str(none)


def test_what_became_of_nodes_that_fit() -> None:
    lines = ["Neg x -> a", "Relu a -> b", "Relu b -> c", "Neg x -> e", "Relu e -> d", "Abs d -> y"]
    graph = graph_of(lines, inputs=["x"], outputs=["c", "y"])
    answers = {
        (one.op_type, one.node): [(answer.pattern_index, answer.outcome) for answer in one.answers]
        for one in explain(graph, Picky(), node="*", best=None)
    }
    assert answers == {
        ("Neg", 0): [(0, "replaced")],
        ("Relu", 1): [(0, "replaced"), (1, "taken")],
        ("Relu", 2): [(1, "replaced"), (0, "miss")],
        ("Neg", 3): [(0, "refused")],
        ("Relu", 4): [(0, "refused"), (1, "refused")],
        ("Abs", 5): [],
    }
    (taken,) = explain(graph, Picky(), node="b")
    assert taken.answers[1].text == (
        "it fits, but another occurrence took it: pattern 0 replaced Neg 'node_0', Relu 'node_1'"
    )
    # Lists are searched for and not run.
    (fits,) = explain(graph, ["Relu:0->1"], node="b")
    assert [answer.outcome for answer in fits.answers] == ["fits"]


def test_it_agrees_with_the_run(repository: Path) -> None:
    """Each node of each occurrence of a run gets the place that it had, and no other node does."""
    names = ["quant_conv", "quant_gemm", "replace_quant"]
    model = onnx.load(repository / EXAMPLE)
    prepare(model)
    models = [ModelProto.FromString(model.SerializeToString()) for _ in range(2)]
    report = rewrite(models[0], names, prepare=False, seed=0)
    asked = explain_in_turn(models[1], [find_row(name) for name in names], ["*"], best=None)
    said = {
        (answer.transformation, answer.pattern, answer.pattern_node, node.name)
        for node in asked
        for answer in node.answers
        if answer.outcome == "replaced"
    }
    done = {
        (step.transformation, pattern.pattern, role, node.name)
        for step in report.steps
        for pattern in step.patterns
        for one in pattern.occurrences
        for role, node in enumerate(one.before)
        if one.accepted and "TesselQuant" not in node.op_type  # made by the run, so not present before
    }
    assert said == done
    assert len(done) > 20
    # A second run has nothing left to do.
    again = explain(models[0], "quant_conv", node="*", best=1)
    assert {node.answers[0].outcome for node in again if node.op_type == "Conv"} == {"done"}


def test_a_single_node_fares_as_among_all() -> None:
    """A run that calls no callback for other occurrences gives the same answer for a node as one that calls all."""
    own = {name: row for name, row in rows().items() if row.is_own}
    outcomes: Counter[str] = Counter()
    for seed in range(60):
        rng = random.Random(seed)
        name = rng.choice(list(own))
        graph = random_graph(rng, [pattern for pattern, _ in own[name].pairs])
        for among_all in explain(graph, name, node="*", best=None):
            output = next(filter(None, graph.node[among_all.node].output), "")
            if output and sum(output in node.output for node in graph.node) == 1:
                (alone,) = explain(graph, name, node=output, best=None)
                assert alone == among_all, (seed, name, output)
                outcomes.update(answer.outcome for answer in alone.answers)
    assert min(outcomes[outcome] for outcome in ("replaced", "refused", "taken", "miss")) > 2, outcomes


def test_what_the_user_leaves_out(tmp_path: Path, capsys: pytest.CaptureFixture[str]) -> None:
    """A recipe's `exclude` and `only` count for `explain` as for a run."""
    path, recipes = tmp_path / "model.onnx", tmp_path / "own.toml"
    onnx.save_model(computed_weight(), path)
    for key, glob, expected in (("exclude", "c[[]1]", "refused"), ("only", "c[[]1]", "replaced")):
        recipes.write_text(f'[mine]\ntransformations = ["quant_conv"]\n{key} = ["{glob}"]\n')
        options = ["--recipe-file", str(recipes), "--recipe", "mine", "--no-prepare", "--json"]
        assert main(["explain", str(path), "--node", "y", *options]) == 0
        (node,) = json.loads(capsys.readouterr().out)
        assert node["answers"][0]["outcome"] == expected
        assert ("excluded" in node["answers"][0]["text"]) == (expected == "refused")
    recipes.write_text('[mine]\ntransformations = ["quant_conv"]\nexclude = ["c[[]1]"]\n')
    assert main(["explain", str(path), *options[:-1]]) == 0
    assert "refused: 1, excluded" in capsys.readouterr().out


def test_on_the_command_line(tmp_path: Path, capsys: pytest.CaptureFixture[str]) -> None:
    path = str(tmp_path / "model.onnx")
    onnx.save_model(computed_weight(), path)
    assert main(["explain", path, "--node", "c[[]*", "--no-prepare"]) == 0
    shown = capsys.readouterr().out
    for part in ("Conv 'c[0]', node 1:", "stays in float: its weight 'w_scaled'", "more: --all", "    replaced"):
        assert part in shown
    assert main(["explain", path, "--node", "a", "-t", "quant_conv", "--json", "--no-prepare"]) == 0
    (node,) = json.loads(capsys.readouterr().out)
    assert [answer["reason"] for answer in node["answers"]] == ["not_initializer", "input_count"]
    for arguments, words in (([], "--node"), (["-t", "quant_conv", "--all"], "--all"), (["--node", "no"], "'no'")):
        assert main(["explain", path, *arguments]) == 2
        assert words in capsys.readouterr().err
