"""Recipes leave sound graphs and come to an end; recipe files are checked key by key."""

from pathlib import Path

import onnx
import pytest

from helpers.checks import dangling
from onnxgraft import rewrite
from onnxgraft.preparation import prepare
from onnxgraft.recipe_book import Recipe, RecipeFileError, UnknownRecipeError, find_recipe, load_recipes
from onnxgraft.selfcheck.soundness import problems


@pytest.mark.parametrize("name", ["yolov5", "resnet"])
def test_a_recipe_leaves_a_sound_graph_that_stays_as_it_is(example_models: list[Path], name: str) -> None:
    model = onnx.load(next(path for path in example_models if path.name.startswith(name)))
    report = rewrite(model, name, seed=0)
    assert report.stable
    assert report.replaced
    graph = model.graph
    assert not dangling(graph)
    assert not problems(graph)
    read = {name for node in graph.node for name in node.input}
    assert read.issuperset(tensor.name for tensor in graph.initializer)
    assert not any(step.changed for step in prepare(model) if step.name != "infer_shapes")
    assert rewrite(model, name).rounds == 1


GOOD = 'summary = "s"\ntransformations = ["quant_conv", "delete_concat"]\n'


def test_a_file_of_ones_own(tmp_path: Path) -> None:
    path = tmp_path / "own.toml"
    path.write_text(f"[a]\n{GOOD}[b]\n{GOOD}prepare = []\nuntil_stable = false\n")
    names = ("quant_conv", "delete_concat")
    assert dict(load_recipes(path)) == {
        "a": Recipe("a", "s", names, source=str(path)),
        "b": Recipe("b", "s", names, prepare=(), until_stable=False, source=str(path)),
    }


@pytest.mark.parametrize(
    ("text", "message"),
    [
        (None, "cannot read .*own.toml': No such file"),
        ("", "has no recipe: write a table"),
        ("[a", "is not TOML: "),
        ('[a]\nsummary = "\xff"', "is not TOML: "),
        ("transformations = []", "'transformations' is outside of a recipe"),
        ("[a]", r"recipe 'a': the key 'transformations' is missing"),
        ("[a]\ntransformations = []", "key 'transformations': the list is empty"),
        ('[a]\ntransformations = "quant_conv"', "key 'transformations': expected a list of names"),
        ('[a]\ntransformations = ["quant_con"]', r"unknown name 'quant_con'; did you mean quant_conv\b.*\?"),
        (f'[a]\n{GOOD}prepare = ["sort"]', "key 'prepare': unknown name 'sort'; the steps are inline_functions, "),
        (f"[a]\n{GOOD}until_stable = 1", "key 'until_stable': expected true or false, not 1"),
        (f"[a]\n{GOOD}transformation = 1", r"recipe 'a': unknown key 'transformation'; did you mean transformations\?"),
    ],
)
def test_what_is_wrong_with_a_file(tmp_path: Path, text: str | None, message: str) -> None:
    path = tmp_path / "own.toml"
    if text is not None:
        path.write_text(text, encoding="latin-1")
    with pytest.raises(RecipeFileError, match=message) as raised:
        load_recipes(path)
    assert str(path) in str(raised.value)
    assert "\n" not in str(raised.value)


def test_unknown_recipes() -> None:
    with pytest.raises(UnknownRecipeError, match=r"'yolo5': did you mean yolov5 or yolox or yolov8\?"):
        find_recipe("yolo5")
