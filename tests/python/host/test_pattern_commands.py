"""Patterns without a class: on the command line, from the nodes of a model, and interactively."""

import io
import json
import random
from pathlib import Path

import onnx
import pytest

import onnxgraft
from helpers.small_graphs import graph_of, model_of, ones, operators
from onnxgraft.cli import main
from onnxgraft.matching import NoPatternError, find, pattern_of

pytestmark = pytest.mark.usefixtures("own_registry")

Capture = pytest.CaptureFixture[str]


def run(*arguments: str) -> int:
    try:
        return main(arguments)
    except SystemExit as stop:
        return int(stop.code or 0)


@pytest.fixture
def folder(tmp_path: Path, monkeypatch: pytest.MonkeyPatch) -> Path:
    """The current folder, with a model of three Relu-Tanh pairs in it."""
    monkeypatch.chdir(tmp_path)
    lines = [line for i in range(3) for line in (f"Relu x{i} -> a{i}", f"Tanh a{i} -> x{i + 1}")]
    onnx.save(model_of(lines, inputs={"x0": [1, 4]}, outputs=["x3"]), "model.onnx")
    return tmp_path


PATTERN = ["--no-prepare", "--pattern", "Relu:0->1", "Tanh:1->2"]


def test_find_counts_lists_and_fails(folder: Path, capsys: Capture) -> None:
    assert run("find", "model.onnx", *PATTERN, "--count") == 0
    assert capsys.readouterr().out == "3\n"
    assert run("find", "model.onnx", *PATTERN, "--json") == 0
    found = json.loads(capsys.readouterr().out)
    assert [match["links"] for match in found] == [{"0": f"x{i}", "1": f"a{i}", "2": f"x{i + 1}"} for i in range(3)]
    assert run("find", "model.onnx", "--pattern", "Conv:0,1i->2", "--fail-if-none", "--count") == 4
    assert run("explain", "model.onnx", "--no-prepare", "--pattern", "Relu:0->1", "Relu:1->2") == 0
    assert "Tanh" in capsys.readouterr().out


def test_apply_replaces_by_lists(folder: Path, capsys: Capture) -> None:
    assert run("apply", "model.onnx", *PATTERN, "--replacement", "Sigmoid:0->2", "-o", "out.onnx") == 0
    assert operators(onnx.load("out.onnx").graph) == "Sigmoid Sigmoid Sigmoid"
    assert run("apply", "model.onnx", *PATTERN, "--replacement", "Sigmoid:0->2", "--dry-run") == 0
    assert sorted(path.name for path in folder.iterdir()) == ["model.onnx", "out.onnx"]


@pytest.mark.parametrize(
    ("arguments", "message"),
    [
        (["--pattern", "Relu 0->1", "--replacement"], "column 5"),
        (["--pattern", "Relu:0->1", "--replacement", "Add:0,5i->1"], "no value is given for the new initializer 5"),
        (["--pattern", "Relu:0->1"], "--pattern needs --replacement"),
        (["-t", "quant_conv", "--replacement"], "--replacement needs --pattern"),
        (["-t", "quant_conv", "--rule-file", "none.toml"], "cannot read 'none.toml'"),
    ],
    ids=lambda value: str(value)[:40],
)
def test_what_cannot_be_meant_is_one_line(arguments: list[str], message: str, folder: Path, capsys: Capture) -> None:
    assert run("apply", "model.onnx", "-o", "out.onnx", *arguments) in (1, 2)
    error = capsys.readouterr().err
    assert message in error
    assert error.count("\n") == 1
    assert [path.name for path in folder.iterdir()] == ["model.onnx"]


@pytest.mark.parametrize(
    ("answers", "left"),
    [
        ("y\nn\ny\n", "Sigmoid Relu Tanh Sigmoid"),
        ("what\na\n", "Sigmoid Sigmoid Sigmoid"),
        ("y\n", "Sigmoid Relu Tanh Relu Tanh"),
    ],
)
def test_interactive_asks_at_each_occurrence(
    answers: str, left: str, folder: Path, capsys: Capture, monkeypatch: pytest.MonkeyPatch
) -> None:
    """After an unknown answer the question is repeated; the end of the input declines the rest."""
    monkeypatch.setattr("sys.stdin", io.StringIO(answers))
    assert run("apply", "model.onnx", *PATTERN, "--replacement", "Sigmoid:0->2", "-o", "out.onnx", "--interactive") == 0
    assert operators(onnx.load("out.onnx").graph) == left
    shown = capsys.readouterr()
    assert "1 'a0'" in shown.out
    assert "Sigmoid" in shown.out
    assert "replace?" in shown.err


def test_a_rule_file_on_the_command_line(folder: Path, capsys: Capture) -> None:
    Path("r.toml").write_text('[squash]\npattern = ["Relu:0->1", "Tanh:1->2"]\nreplacement = ["Sigmoid:0->2"]\n')
    Path("recipe.toml").write_text('[mine]\ntransformations = ["squash", "noop_identity"]\nprepare = []\n')
    arguments = ["--rule-file", "r.toml", "--recipe-file", "recipe.toml", "--recipe", "mine", "-o", "out.onnx"]
    assert run("apply", "model.onnx", *arguments) == 0
    assert operators(onnx.load("out.onnx").graph) == "Sigmoid Sigmoid Sigmoid"
    assert run("list", "--rules", "--rule-file", "r.toml") == 0
    assert "fold_batch_norm" in capsys.readouterr().out
    assert run("check", "r.toml", "--graphs", "20") == 0
    Path("r.toml").write_text(Path("r.toml").read_text() + "keeps_function = true\n")
    assert run("check", "r.toml", "--graphs", "20", "--counterexamples", "bad") == 3
    assert "changes what is computed" in capsys.readouterr().out
    assert [node.op_type for node in onnx.load("bad/squash_0.onnx").graph.node] == ["Relu", "Tanh"]


def test_a_printed_pattern_can_be_pasted(folder: Path, capsys: Capture) -> None:
    assert run("pattern", "model.onnx", "--from", "x1", "--to", "x2") == 0
    assert capsys.readouterr().out.strip() == '"Relu:0->1" "Tanh:1->2"'
    assert run("pattern", "model.onnx", "--nodes", "node_0", "a1", "--toml") == 0
    Path("rule.toml").write_text(capsys.readouterr().out)
    assert onnxgraft.load_rules("rule.toml")["my_rule"].pairs[0].pattern == ("Relu:0->1", "Relu:2->3")


def test_random_connected_nodes_give_a_pattern_that_finds_them(repository: Path) -> None:
    rng, tried = random.Random(0), 0
    for path in sorted(
        [*(repository / "examples/models").glob("*.onnx"), *(repository / "tests/models").glob("*.onnx")]
    ):
        graph = onnx.load(path).graph
        readers: dict[str, list[int]] = {}
        for index, node in enumerate(graph.node):
            for name in node.input:
                readers.setdefault(name, []).append(index)
        for _ in range(10):
            chosen = {rng.randrange(len(graph.node))}
            for _ in range(rng.randint(0, 5)):
                near = [index for one in chosen for name in graph.node[one].output for index in readers.get(name, [])]
                chosen |= {rng.choice(near)} if near else set()
            names = [graph.node[index].name for index in sorted(chosen)]
            try:
                text = pattern_of(graph, names)
            except NoPatternError as error:
                assert "outputs" in str(error) or "omits input" in str(error)  # noqa: PT017
                continue
            tried += 1
            assert set(text.nodes) == chosen
            found = [match for match in find(graph, list(text.pattern)) if match.nodes == text.nodes]
            assert [match.links for match in found] == [text.links], text
    assert tried > 100


def test_what_a_pattern_cannot_say() -> None:
    lines = ["Relu x -> a", "Split a -> b c", "Clip a  hi -> d", "Clip a  a -> e", "Tanh a -> y", "Tanh d -> y2"]
    graph = graph_of(lines, inputs=["x"], outputs=["y", "y2", "a"], tensors={"hi": ones(1)})
    for index in (2, 3):
        graph.node[index].input[:] = ["a", "", graph.node[index].input[-1]]
    assert pattern_of(graph, ["node_0", "node_2"]).pattern == ("Relu:0->1", "Clip:1,~i->2")
    (warning,) = pattern_of(graph, ["node_0", "node_2"]).warnings
    assert "'a'" in warning
    assert "Split" in warning
    assert "outputs of the graph" in warning
    for names, message in ((["node_1"], "2 outputs"), (["node_3"], "omits input 1"), ([], "no node was named")):
        with pytest.raises(NoPatternError, match=message):
            pattern_of(graph, names)
    with pytest.raises(onnxgraft.UnknownNameError, match="did you mean node_0"):
        pattern_of(graph, ["node0"])
    with pytest.raises(NoPatternError, match="is not computed from"):
        pattern_of(graph, start="y", end="d")
