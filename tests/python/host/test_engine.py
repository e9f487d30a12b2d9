"""The engine: what a step records and restores, when rounds end, and what users register."""

import logging
from importlib.metadata import EntryPoint
from pathlib import Path
from typing import Any, Literal

import numpy as np
import onnx
import pytest
from onnx import GraphProto, TensorProto, helper, numpy_helper

import onnxgraft
from helpers.classes import CLASSES, class_graph
from helpers.occurrences import occurrence as occurrence_of
from helpers.small_graphs import graph_of, model_of, ones, operators
from onnxgraft import quant
from onnxgraft.abstract_transformation import AbstractTransformation
from onnxgraft.catalogue import registry as catalogue
from onnxgraft.engine import Occurrence, Report

FAULTS = [ValueError("no\ngood"), MemoryError(), KeyboardInterrupt()]


class Rule(AbstractTransformation):
    """One pair; `callback` is called for each occurrence."""

    def __init__(self, pattern: str = "Relu:0->1", *replacement: str, name: str = "rule", callback: Any = None) -> None:
        self.pair = ([pattern], list(replacement or ["Elu:0->1"]))
        self.name, self.callback = name, callback

    def apply(self, graph: GraphProto, debug: bool = False) -> int:
        return self._replace_all_isomorphic_sub_graphs(graph, *self.pair, debug=debug)

    def get_simple_name(self) -> str:
        return self.name

    def _on_replace_subgraph(self, graph: GraphProto, *arguments: Any, **named: Any) -> bool:
        return True if self.callback is None else bool(self.callback(graph, *arguments, **named))


def chain(*operators: str) -> onnx.ModelProto:
    names = [f"t{number}" for number in range(len(operators) + 1)]
    lines = [f"{op} {names[at]} -> {names[at + 1]}" for at, op in enumerate(operators)]
    return model_of(lines, inputs=[names[0]], outputs=[names[-1]])


def furnish(graph: GraphProto) -> None:
    """All the lists that a step may change."""
    for name in ("w", "unused"):
        graph.initializer.append(numpy_helper.from_array(ones(3, 2), name))
    graph.sparse_initializer.add().values.name = "s"
    graph.value_info.extend(helper.make_tensor_value_info(f"t{at}", TensorProto.FLOAT, [at]) for at in (1, 2))
    body = graph_of(["Relu t1 -> inner"], outputs=["inner"])
    graph.node.append(helper.make_node("If", ["t0"], ["t9"], then_branch=body, else_branch=body))


def vandalize(graph: GraphProto, *_: Any, **__: Any) -> bool:
    """Edits everything that a callback may, except the content of initializers."""
    del graph.initializer[0], graph.sparse_initializer[:], graph.output[:]
    graph.initializer.extend([TensorProto(name="new"), TensorProto(name="w")])
    graph.node.add(op_type="New")
    graph.node.sort(key=lambda node: str(node.name), reverse=True)
    for node in graph.node:
        node.input.append("more")
        node.attribute.add(name="a")
    graph.value_info[0].type.tensor_type.shape.dim[0].dim_param = "N"
    graph.input.add(name="i")
    Rule().apply(next(node for node in graph.node if node.op_type == "If").attribute[0].g)
    return True


def run(graph: Any, *transformations: Any, **options: Any) -> Report:
    return onnxgraft.rewrite(graph, transformations, prepare=False, **options)


def fail_after(transformation: Any, error: BaseException, calls: int) -> Any:
    """Makes the callback of an object raise after its own work, at the n-th call."""
    original, left = transformation._on_replace_subgraph, [calls]

    def callback(*arguments: Any, **named: Any) -> Any:
        accepted, left[0] = original(*arguments, **named), left[0] - 1
        if not left[0]:
            raise error
        return accepted

    transformation._on_replace_subgraph = callback
    return transformation


@pytest.mark.parametrize("name", ["vandal", *CLASSES])
def test_a_step_that_raises_never_was(name: str) -> None:
    undone = 0
    for seed in range(12):
        error = FAULTS[seed % 3]
        if name == "vandal":
            graph, made = chain("Relu", "Elu", "Relu").graph, Rule(callback=vandalize)
            furnish(graph)
        else:
            graph, made = class_graph(name, seed), CLASSES[name]()
        before = graph.SerializeToString(deterministic=True)
        try:
            with np.errstate(all="ignore"):
                run(graph, fail_after(made, error, 1 + seed % 2), seed=seed)
        except (onnxgraft.TransformationError, type(error)):
            assert graph.SerializeToString(deterministic=True) == before
            undone += 1
        assert "_on_replace_subgraph" in vars(made)  # the intercepting function is there again
    assert undone


def test_a_body_too_large_to_copy_is_put_back() -> None:
    class Inside(Rule):
        def apply(self, graph: GraphProto, debug: bool = False) -> int:
            return super().apply(graph.node[0].attribute[0].g) // 0

    body = graph_of(["Relu x -> y"], outputs=["y"], tensors={"large": ones(1 << 15)})
    graph = GraphProto(node=[helper.make_node("If", ["c"], ["z"], then_branch=body)])
    before = graph.SerializeToString(deterministic=True)
    with pytest.raises(onnxgraft.TransformationError, match="ZeroDivisionError"):
        run(graph, Inside())
    assert graph.SerializeToString(deterministic=True) == before


def test_errors_name_the_place_and_can_be_passed_over() -> None:
    model = chain("Relu", "Elu", "Sin")
    broken = Rule(name="broken", callback=lambda *_, **__: int("no\nnumber"))
    place = r"^broken, pattern \['Relu:0->1'\], at Relu 'node_0': ValueError: "
    with pytest.raises(onnxgraft.TransformationError, match=place) as e:
        run(model, Rule("Sin:0->1", "Cos:0->1"), broken, Rule("Elu:0->1", "Tan:0->1"))
    assert (e.value.transformation, e.value.pattern, e.value.nodes[0].inputs) == ("broken", ("Relu:0->1",), ("t0",))
    assert e.value.report is not None
    assert [(step.replaced, bool(step.error)) for step in e.value.report.steps] == [(1, False), (0, True)]
    report = run(model, broken, Rule("Elu:0->1", "Tan:0->1"), on_error="continue")
    assert [(step.replaced, bool(step.error)) for step in report.steps] == [(0, True), (1, False)]
    assert operators(model.graph) == "Relu Tan Cos"


@pytest.mark.parametrize("details", ["counts", "nodes", "neighbours"])
def test_recording_changes_nothing_and_counts_right(
    example_models: list[Path], details: Literal["counts", "nodes", "neighbours"]
) -> None:
    names = sorted(catalogue.rows(), key=lambda name: not name.startswith("quant_"))
    for path in example_models:
        plain, recorded = onnx.load(path), onnx.load(path)
        np.random.seed(3)
        counts = [catalogue.find_row(name).apply(plain.graph) for name in names]
        expected = np.random.rand()
        np.random.seed(3)
        report = run(recorded, *names, details=details, finish=False)
        assert np.random.rand() == expected
        assert [step.replaced for step in report.steps] == counts
        for model in (plain, recorded):
            del model.graph.value_info[:]  # a run records what the classes do not
        assert recorded.SerializeToString(deterministic=True) == plain.SerializeToString(deterministic=True)
        assert Report.from_json(report.to_json()) == report
        patterns = [pattern for step in report.steps for pattern in step.patterns]
        assert all(bool(pattern.found) != bool(pattern.nearest_miss) for pattern in patterns)
        assert all(len(pattern.occurrences) == pattern.found * (details != "counts") for pattern in patterns)


def test_an_occurrence_in_words() -> None:
    model = chain("Sin", "Relu", "Cos")
    model.graph.value_info.append(helper.make_tensor_value_info("t1", TensorProto.FLOAT, ["N", 3, None]))
    model.graph.node[1].attribute.append(helper.make_attribute("a", numpy_helper.from_array(ones(2, 5))))
    occurrence = run(model, Rule(callback=lambda *_, **__: 0), details="neighbours").steps[0].patterns[0].occurrences[0]
    assert not occurrence.accepted
    (before,), (after,) = occurrence.before, occurrence.after
    assert (before.op_type, before.index, before.outputs) == ("Relu", None, ("t2",))
    assert before.attributes == {"a": "float32[2,5]"}
    assert (after.op_type, after.index, after.inputs) == ("Elu", 1, ("t1",))
    assert [node.label for node in occurrence.neighbours] == ["Sin 'node_0'", "Cos 'node_2'"]
    assert (occurrence.shapes["t1"], occurrence.links["0"]) == ("float32[N,3,?]", "t1")


@pytest.mark.parametrize("fails", [False, True])
def test_a_seed_is_for_the_run_alone(fails: bool) -> None:
    draws: list[float] = []

    def draw(*_: Any, **__: Any) -> bool:
        draws.append(np.random.rand())
        return bool(1 / (not fails))

    rule = Rule(callback=draw)
    np.random.seed(1)
    expected = np.random.rand()
    np.random.seed(1)
    for _ in range(2):
        run(chain("Relu"), rule, seed=8, on_error="continue")
    assert draws[0] == draws[1] != expected
    assert np.random.rand() == expected


TOGGLE = (Rule("Relu:0->1", "Elu:0->1", name="there"), Rule("Elu:0->1", "Relu:0->1", name="back"))


@pytest.mark.parametrize(
    ("rules", "rounds", "stable", "warning"),
    [
        ((Rule("Relu:0->1", "Elu:0->1"), Rule("Elu:0->1", "Sin:0->1")), 2, True, None),
        ((Rule("Elu:0->1", "Sin:0->1"), Rule("Relu:0->1", "Elu:0->1")), 3, True, None),
        # Counted each time, but the graph is the same again: new names and another order do not count.
        ((Rule("Relu:0->1", "Relu:0->1"),), 1, True, None),
        (TOGGLE, 1, False, "'there' and 'back' undo each other"),
        ((TOGGLE[0], Rule("Relu:0->1", "Elu:0->1"), TOGGLE[1]), 1, False, "'there' and 'back' undo each other"),
        ((Rule("Relu:0->1", "Relu:0->2", "Sin:2->1", name="more"),), 4, False, "4 rounds: 'more' still changed"),
    ],
)  # fmt: skip
def test_rounds(rules: tuple[Rule, ...], rounds: int, stable: bool, warning: str | None) -> None:
    report = run(chain("Relu", "Sin"), *rules, until_stable=True, max_rounds=4)
    assert (report.rounds, report.stable) == (rounds, stable)
    assert [warning in text for text in report.warnings if warning] == [True] * (warning is not None)


@pytest.mark.parametrize(
    ("name", "attributes", "reason"),
    [
        ("quant_conv", {}, "the weight 't1' is INT8 already"),
        ("replace_quant", {0: {"scale": 0.5}}, "the TesselQuant node that writes 't1' has no attribute 'offset'"),
        ("replace_quant", {k: {"scale": s, "offset": 1.0} for k, s in ((0, 0.5), (2, 0.50125))}, "0.50125: more than"),
    ],
)
def test_refusals_give_their_reason(name: str, attributes: dict[int, dict[str, float]], reason: str) -> None:
    pattern, _ = catalogue.find_row(name).pairs[0]
    graph = occurrence_of(pattern, {"1": np.ones((1, 1, 1, 1), np.int8)}, attributes)
    assert reason in str(run(graph, name).steps[0].patterns[0].occurrences[0].reason)


USER_CODE = """
import onnxgraft, helping
from onnxgraft.abstract_transformation import AbstractTransformation
@onnxgraft.register
class Mine(AbstractTransformation):
    def apply(self, graph, debug=False):
        return self._replace_all_isomorphic_sub_graphs(graph=graph, subgraph=helping.OLD, replacement=helping.NEW)
    def get_simple_name(self):
        return "mine"
"""


def test_users_transformations(
    tmp_path: Path, monkeypatch: pytest.MonkeyPatch, caplog: pytest.LogCaptureFixture
) -> None:
    registry = dict(catalogue._registry())
    monkeypatch.setattr(catalogue, "_registry", lambda: registry)
    entries = [EntryPoint("a", "no_such_module", ""), EntryPoint("b", "onnx:GraphProto", "")]
    monkeypatch.setattr(catalogue, "entry_points", lambda group: entries)
    catalogue._load_entry_points.cache_clear()
    (tmp_path / "mine.py").write_text(USER_CODE)
    (tmp_path / "helping.py").write_text("OLD, NEW = ['Relu:0->1'], ['Elu:0->1']")
    with caplog.at_level(logging.WARNING):
        assert catalogue.load_user_code(str(tmp_path / "mine.py")) == ("mine",)
    assert [record.args[0] for record in caplog.records if isinstance(record.args, tuple)] == ["a", "b"]
    assert catalogue.load_user_code(str(tmp_path / "mine.py")) == ("mine",)  # again: it replaces itself
    assert catalogue.find_row("mine").pairs == ((("Relu:0->1",), ("Elu:0->1",)),)
    assert list(onnxgraft.transformations())[-1] == "mine"
    assert run(chain("Relu"), "mine").replaced == 1
    taken = type("Taken", (Rule,), {"get_simple_name": lambda self: "quant_conv"})
    for wrong in (taken, AbstractTransformation, quant.AbstractPullUpTesselQuantTransformation, Occurrence, 3):
        with pytest.raises(onnxgraft.RegistrationError):
            onnxgraft.register(wrong)  # type: ignore[type-var]
    for wrong_code in ("no_such_module", str(tmp_path / "missing.py"), str(tmp_path)):
        with pytest.raises(onnxgraft.RegistrationError):
            catalogue.load_user_code(wrong_code)


EMPTY = Report().to_json()


@pytest.mark.parametrize(
    "text", ["", "[]", "{}", EMPTY.replace(": 2", ": 1"), EMPTY.replace("null", "[]"), EMPTY.replace("seed", "s")]
)
def test_strange_reports_are_refused(text: str) -> None:
    with pytest.raises(onnxgraft.ReportError):
        Report.from_json(text)
