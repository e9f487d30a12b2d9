"""Rules from files: what they may contain, what is refused; and the package's own rules are right."""

from pathlib import Path
from typing import Any, ClassVar

import numpy as np
import pytest
from onnx import helper, numpy_helper

import onnxgraft
from helpers.small_graphs import graph_of, model_of, operators
from onnxgraft.rules import RuleFileError, class_of, library, load_rules
from onnxgraft.rules.expression_reader import Known, read_expression
from onnxgraft.rules.place import Place
from onnxgraft.rules.values import RefusedError, Scope, Value
from onnxgraft.selfcheck import check_rule

pytestmark = pytest.mark.usefixtures("own_registry")

PAIR = 'pattern = ["Conv:0,1i->2", "Mul:2,3i->4"]\nreplacement = ["#0:0,100i->4"]\n'
GOOD = PAIR + 'initializers.100 = { multiply = ["1", "3"] }\n'


def in_rule(*lines: str, pair: str = GOOD) -> str:
    return "[fold]\n" + pair + "\n".join(lines)


def instead(value: str) -> str:
    return in_rule(f"initializers.100 = {value}", pair=PAIR)


# Rule file -> part of the message, after the name of the file.
BAD = {
    "empty": ("", "has no rule"),
    "not TOML": ("[fold", "is not TOML"),
    "not UTF-8": (b"\xff = 1", "is not TOML"),
    "outside of a table": ("summary = ''", "rule 'summary': expected a table"),
    "name with a dash": ("[a-b]\n" + GOOD, "rule 'a-b': the name of a rule"),
    "unknown key": (in_rule("patern = []"), "key 'patern': unknown key; did you mean 'pattern'?"),
    "summary": (in_rule("summary = 1"), "key 'summary': expected a text"),
    "keeps_function": (in_rule("keeps_function = 1"), "key 'keeps_function': expected true or false"),
    "no pattern": (in_rule(pair="replacement = []"), "the key 'pattern' is missing"),
    "no replacement": (in_rule(pair='pattern = ["Relu:0->1"]'), "the key 'replacement' is missing"),
    "pattern is a text": (in_rule(pair='pattern = "Relu:0->1"\nreplacement = []'), "key 'pattern': expected a list"),
    "notation": (in_rule(pair='pattern = ["Relu 0->1"]\nreplacement = []'), "column 5"),
    "empty pattern": (in_rule(pair="pattern = []\nreplacement = []"), "the pattern is empty"),
    "alternatives in a replacement": (
        in_rule(pair='pattern = ["Relu:0->1"]\nreplacement = ["Abs|Neg:0->1"]'),
        "a new node has one operator",
    ),
    "pairs and pattern": (in_rule("pairs = []"), "not allowed next to 'pairs'"),
    "pairs is not a list": ("[fold]\npairs = 3", "key 'pairs': expected tables [[fold.pairs]]"),
    "key in a pair": ("[[fold.pairs]]\nsummary = ''", "key 'pairs[0].summary': unknown key"),
    "where is not a table": (in_rule("where = 1"), "key 'where': expected a table"),
    "where names nothing": (in_rule("where.conv = {}"), "key 'where.conv': unknown key; write 'tensor', or"),
    "node that is not there": (in_rule("where.2.domain = ''"), "key 'where.2': there is no node 2"),
    "key of a node": (in_rule("where.0.attribute = {}"), "key 'where.0.attribute': unknown key"),
    "domain": (in_rule("where.0.domain = 1"), "key 'where.0.domain': expected the name of a domain"),
    "without": (in_rule("where.0.without = 'pads'"), "key 'where.0.without': expected a list"),
    "attribute condition": (in_rule("where.0.attributes.group = { is = 1 }"), "'where.0.attributes.group.is': unknown"),
    "attribute value": (in_rule("where.0.attributes.group = 2020-01-01"), "'where.0.attributes.group': expected a"),
    "tensor that is not there": (in_rule("where.tensor.9 = {}"), "key 'where.tensor.9': there is no tensor 9"),
    "key of a tensor": (in_rule("where.tensor.3 = { size = 1 }"), "key 'where.tensor.3.size': unknown key"),
    "values of what is computed": (in_rule("where.tensor.2.value = 1"), "key 'where.tensor.2': only an initializer"),
    "element type": (in_rule("where.tensor.3.type = 'float'"), "key 'where.tensor.3.type': unknown element type"),
    "rank": (in_rule("where.tensor.3.rank = -1"), "key 'where.tensor.3.rank': expected a rank of 0 or more"),
    "shape": (in_rule("where.tensor.3.shape = 3"), "key 'where.tensor.3.shape': expected a shape"),
    "size": (in_rule("where.tensor.3.shape = [-1]"), "key 'where.tensor.3.shape': expected sizes"),
    "fits": (in_rule("where.tensor.3.fits = '9'"), "key 'where.tensor.3.fits': there is no tensor 9"),
    "min": (in_rule("where.tensor.3.min = true"), "key 'where.tensor.3.min': expected a number"),
    "elements": (in_rule("where.tensor.3.elements = -1"), "key 'where.tensor.3.elements': expected 0 or more elements"),
    "ragged value": (in_rule("where.tensor.3.value = [[1], [1, 2]]"), "different lengths"),
    "no contents": (in_rule(pair=PAIR), "key 'initializers': no value is given for the new initializer 100"),
    "contents of nothing": (in_rule("initializers.101 = 1"), "'initializers.101': the replacement does not use"),
    "unknown function": (instead('{ power = ["1", 2] }'), "expected one function of add, subtract"),
    "two functions": (instead('{ add = ["1", 2], negate = "1" }'), "expected one function"),
    "operands": (instead('{ divide = ["1"] }'), "'initializers.100.divide': divide takes 2 operands, not 1"),
    "option is missing": (instead('{ reshape = "1" }'), "'initializers.100': reshape needs the key 'shape'"),
    "option": (instead('{ reshape = "1", shape = "x" }'), "'initializers.100.shape': expected a list of whole"),
    "axis": (instead('{ concatenate = ["1", "3"], axis = 0.5 }'), "'initializers.100.axis': expected a whole number"),
    "type of a cast": (instead('{ cast = "1", type = "real" }'), "'initializers.100.type': unknown element type"),
    "tensor that is computed": (instead('{ negate = "2" }'), "tensor 2 is not an initializer: write '2i'"),
    "no such tensor": (instead('{ negate = "7" }'), "there is no tensor 7 in the pattern"),
    "no such name": (instead('{ negate = "factor" }'), "'factor' is neither the id"),
    "attribute of nothing": (instead('{ attribute = "alpha" }'), "the key 'of' is missing"),
    "attribute of no node": (instead('{ attribute = "alpha", of = 2 }'), "there is no node 2"),
    "name of a value": (in_rule("let.7 = 1"), "key 'let.7': a name starts with a letter"),
    "name before its value": (in_rule('let.a = { negate = "b" }', "let.b = 1"), "key 'let.a.negate': 'b' is neither"),
    "attributes of no node": (in_rule("attributes.2 = { axis = 1 }"), "key 'attributes.2': no new or copied node"),
    "too many pairs": (
        in_rule(pair=f"pattern = {[f'A|B|C:{k}->{k + 1}' for k in range(5)]}\nreplacement = []"),
        "expands to 243 patterns",
    ),
}


@pytest.mark.parametrize(("text", "message"), BAD.values(), ids=BAD)
def test_a_bad_file_gives_one_line_with_file_rule_and_key(text: str | bytes, message: str, tmp_path: Path) -> None:
    path = tmp_path / "rules.toml"
    path.write_bytes(text if isinstance(text, bytes) else text.encode())
    before = onnxgraft.transformations()
    with pytest.raises(RuleFileError) as caught:
        onnxgraft.load_rule_file(path)
    line = str(caught.value)
    assert message in line
    assert str(path) in line
    assert "\n" not in line
    assert onnxgraft.transformations() == before


class _Scope(Scope):
    constants: ClassVar[dict[str, Any]] = {
        "1": np.arange(6, dtype=np.float32).reshape(2, 3),
        "3": np.array([2, 4], np.int64),
        "5": np.array([1, -1], np.int8),
        "7": np.array([0.5], np.float16),
    }

    def constant(self, tensor: str) -> Any:
        return self.constants[tensor]

    def node(self, number: int) -> Any:
        return helper.make_node("BatchNormalization", ["x"], ["y"], momentum=0.5, name="bn")

    def named(self, name: str) -> Value:
        return Value.of(self.constants["5"])


# Expression -> array and element type, or the reason of the refusal.
VALUES: list[tuple[Any, Any, str]] = [
    ("1", [[0, 1, 2], [3, 4, 5]], "float32"),
    ("name", [1, -1], "int8"),
    (1.5, 1.5, "float32"),
    ([1, 2], [1, 2], "int64"),
    ({"literal": [1, 2], "type": "uint8"}, [1, 2], "uint8"),
    ({"add": ["1", 1]}, [[1, 2, 3], [4, 5, 6]], "float32"),
    ({"add": ["3", 1, 1]}, [4, 6], "int64"),
    ({"subtract": [1, "7"]}, [0.5], "float16"),
    ({"divide": ["3", 2]}, [1, 2], "int64"),
    ({"divide": ["1", {"reshape": [[10, 10]], "shape": [2, 1]}]}, [[0, 0.1, 0.2], [0.3, 0.4, 0.5]], "float32"),
    ({"negate": "5"}, [-1, 1], "int8"),
    ({"square_root": "3"}, "cannot be stored", ""),
    ({"square_root": {"cast": "3", "type": "float32"}}, [2**0.5, 2], "float32"),
    ({"sum": "1", "axes": [0]}, [3, 5, 7], "float32"),
    ({"transpose": "1", "perm": [1, 0]}, [[0, 3], [1, 4], [2, 5]], "float32"),
    ({"concatenate": ["3", "3"], "axis": 0}, [2, 4, 2, 4], "int64"),
    ({"take": "1", "indices": [1]}, [[3, 4, 5]], "float32"),
    ({"take": "1", "indices": [1], "axis": 1}, [[1], [4]], "float32"),
    ({"attribute": "momentum", "of": 0}, 0.5, "float32"),
    ({"attribute": "epsilon", "of": 0}, np.float32(1e-5), "float32"),  # the schema's default
    ({"attribute": "none", "of": 0, "default": 3}, 3, "int64"),
    ({"attribute": "none", "of": 0}, "has no attribute 'none'", ""),
    ({"add": ["1", "3"]}, "element types differ: float32 and int64", ""),
    ({"multiply": ["1", [1, 2]]}, "shapes [2, 3] and [2] do not fit", ""),
    ({"multiply": [{"reshape": "1", "shape": [6, 1]}, [1, 2]]}, "shapes [6, 1] and [2] do not fit", ""),
    ({"divide": ["1", 0]}, "not finite", ""),
    ({"divide": ["3", 3]}, "do not divide without remainder", ""),
    ({"multiply": ["5", 1.5]}, "a number that is not whole", ""),
    ({"multiply": ["5", 200]}, "cannot be stored as int8", ""),
    ({"multiply": ["7", 1e6]}, "cannot be stored as float16", ""),
    ({"negate": {"literal": 1, "type": "uint8"}}, "cannot be stored as uint8", ""),
    ({"square_root": {"negate": "1"}}, "a value is negative", ""),
    ({"reshape": "1", "shape": [4, -1]}, "cannot become [4, -1]", ""),
    ({"transpose": "1", "perm": [0, 0]}, "not an order of 2 axes", ""),
    ({"sum": "1", "axes": [2]}, "not axes of [2, 3]", ""),
    ({"concatenate": ["1", "1"], "axis": 5}, "do not fit along axis 5", ""),
    ({"take": "3", "indices": [2]}, "are not positions", ""),
    ({"cast": [1e30], "type": "int64"}, "does not fit int64", ""),
]


@pytest.mark.parametrize(("value", "expected", "dtype"), VALUES, ids=lambda value: str(value)[:60])
def test_values(value: Any, expected: Any, dtype: str) -> None:
    known = Known(_Scope.constants, _Scope.constants, {"name": None}, 1)
    expression = read_expression(value, Place("file", "rule"), known)
    if isinstance(expected, str):
        with pytest.raises(RefusedError) as refused:
            expression.evaluate(_Scope()).stored()
        assert expected in str(refused.value)
    else:
        result = expression.evaluate(_Scope()).stored()
        np.testing.assert_allclose(result, expected, rtol=1e-6)
        assert result.dtype == dtype


@pytest.mark.parametrize("name", library())
def test_rules_of_the_package_keep_the_function(name: str) -> None:
    """Each on models that meet its conditions; for every pair some could be evaluated."""
    result = check_rule(library()[name].rule, graphs=40)
    result.raise_if_failed()
    assert result.accepted, str(result)
    assert not any("not compared" in note for note in result.notes), str(result)


def test_check_finds_numbers_that_change(tmp_path: Path) -> None:
    wrong = (
        in_rule("keeps_function = true", "where.tensor.3 = { rank = 0 }")
        + "\n[other]\n"
        + ('pattern = ["Relu:0->1"]\nreplacement = ["Sigmoid:0->1"]\nkeeps_function = true\n')
    )
    (tmp_path / "r.toml").write_text(wrong.replace('["1", "3"]', '["1", 2.0, "3"]'))
    for rule in load_rules(tmp_path / "r.toml").values():
        result = check_rule(rule, graphs=20)
        assert result.findings[0].startswith("function: pair 0"), str(result)
        assert result.counterexamples[0] is not None


def test_conditions_are_refused_with_their_reason(tmp_path: Path) -> None:
    """Each occurrence lacks one thing; the last one has all."""
    (tmp_path / "r.toml").write_text(
        in_rule(
            "where.0 = { attributes = { group = 1, auto_pad = 'NOTSET' }, without = ['dilations'] }",
            "where.1.domain = ''",
            "where.tensor.0 = { type = 'float32', rank = [3, 4] }",
            "where.tensor.3 = { elements = 1, min = 0.1, max = 9, not = 2, fits = '2' }",
            "let.factor = { reshape = '3', shape = [] }",
            pair=PAIR
            + "initializers.100 = { multiply = ['1', 'factor'] }\nattributes.4 = { group = 1, tag = 'scaled' }\n",
        )
    )
    factors: dict[str, Any] = {
        "group": 3.0,
        "dilations": 3.0,
        "domain": 3.0,
        "type": 3.0,
        "wide": [1.0, 2.0],
        "many": [[[1.0]], [[2.0]]],
    }
    factors |= {"low": 0.0, "high": 10.0, "two": 2.0, "good": 3.0}
    lines: list[str] = []
    tensors: dict[str, Any] = {}
    inputs: dict[str, list[int]] = {}
    for name, factor in factors.items():
        lines += [f"Conv x_{name} w_{name} -> a_{name}", f"Mul a_{name} f_{name} -> y_{name}"]
        tensors |= {f"w_{name}": np.ones((2, 2, 1, 1), np.float32), f"f_{name}": np.array(factor, np.float32)}
        inputs[f"x_{name}"] = [1, 2, 4, 4]
    graph = graph_of(lines, inputs=inputs, outputs=[f"y_{name}" for name in factors], tensors=tensors)
    graph.node[0].attribute.append(helper.make_attribute("group", 2))
    graph.node[2].attribute.append(helper.make_attribute("dilations", [1, 1]))
    graph.node[5].domain = "my.domain"
    graph.input[3].type.tensor_type.elem_type = 10
    graph.value_info.extend(helper.make_tensor_value_info(f"a_{name}", 1, [1, 2, 4, 4]) for name in factors)
    (rule,) = load_rules(tmp_path / "r.toml").values()
    report = onnxgraft.rewrite(graph, class_of(rule), prepare=False)
    occurrences = report.steps[0].patterns[0].occurrences
    reasons = [one.reason for one in occurrences]
    for reason, words in zip(
        reasons,
        ["'group' of Conv", "an attribute 'dilations'", "of domain 'my.domain'", "of type float16, not float32",
         "may change the shape of 'a_wide'", "has 2 elements, not 1", "below 0.1", "above 9", "has an element 2", None],
        strict=True,
    ):  # fmt: skip
        assert reason is None if words is None else words in str(reason), reasons
    folded = next(node for node in graph.node if node.output[0] == "y_good")
    assert {one.name: helper.get_attribute_value(one) for one in folded.attribute} == {"group": 1, "tag": b"scaled"}
    (weight,) = (numpy_helper.to_array(one) for one in graph.initializer if one.name == folded.input[1])
    assert (weight == 3).all()


def test_sugar_expands_in_the_order_written(tmp_path: Path) -> None:
    text = in_rule(
        "commutative = true", pair='pattern = ["Relu|Tanh:0->1", "Add:1,2i->3"]\nreplacement = ["#0", "#1"]\n'
    )
    (tmp_path / "r.toml").write_text(text)
    (rule,) = load_rules(tmp_path / "r.toml").values()
    assert [pair.pattern for pair in rule.pairs] == [
        (f"{op}:0->1", f"Add:{links}->3") for op in ("Relu", "Tanh") for links in ("1,2i", "2i,1")
    ]


def test_a_rule_runs_by_name_from_a_recipe_and_from_the_library(tmp_path: Path) -> None:
    (tmp_path / "r.toml").write_text('[my_pair]\npattern = ["Relu:0->1", "Relu:1->2"]\nreplacement = ["#1:0->2"]\n')
    assert (
        onnxgraft.load_rule_file(tmp_path / "r.toml") == ("my_pair",) == onnxgraft.load_rule_file(tmp_path / "r.toml")
    )
    model = model_of(["Relu x -> a", "Relu a -> b", "Identity b -> c", "Tanh c -> y"], inputs={"x": [1]}, outputs=["y"])
    assert onnxgraft.rewrite(model, ["my_pair", "noop_identity"], prepare=False).replaced == 2
    assert operators(model.graph).split() == ["Relu", "Tanh"]
