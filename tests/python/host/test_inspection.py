"""A model at a glance, the best recipe, and results that behave as objects."""

import json
import re
from pathlib import Path
from typing import Any

import onnx
import pytest

import onnxgraft
from onnxgraft.cli import main
from onnxgraft.errors import ModelFileError

FAMILIES = {"resnet18_timm_c11": "resnet", "yolov5r2_even_c17": "yolov7"}


@pytest.mark.parametrize(("name", "best"), FAMILIES.items())
def test_one_screen_says_what_one_wants_to_know(name: str, best: str, repository: Path, tmp_path: Path) -> None:
    path = repository / f"examples/models/{name}.onnx"
    before = onnxgraft.inspect(path)
    assert before.recipes[0].name == best
    assert sum(before.operators.values()) == before.nodes == len(onnx.load(path).graph.node)
    assert max(map(len, str(before).splitlines())) <= 80
    assert before.file_bytes == path.stat().st_size
    report = onnxgraft.rewrite(path, best, output=tmp_path / "out.onnx")
    after = onnxgraft.inspect(tmp_path / "out.onnx", recipes=False)
    assert report.account is not None
    assert after.account.share == report.account.share == 1.0
    assert after.quantize_nodes > 0
    assert "- quantize" in before.beside(after)
    assert "% INT8" in str(after)


def test_recipe_auto_and_inspect_on_the_command_line(
    repository: Path, tmp_path: Path, capsys: pytest.CaptureFixture[str]
) -> None:
    model = str(repository / "examples/models/resnet18_timm_c11.onnx")
    out = str(tmp_path / "out.onnx")
    assert main(["apply", model, "--recipe", "auto", "-o", out]) == 0
    assert "recipe: resnet" in capsys.readouterr().out
    assert main(["inspect", model, out, "--json"]) == 0
    before, after = json.loads(capsys.readouterr().out)
    assert (before["int8_share"], after["int8_share"]) == (0.0, 1.0)
    assert main(["inspect", model, out]) == 0
    assert "+ Conv          21 INT8, 0 float" in capsys.readouterr().out


def test_results_behave_as_objects(repository: Path, tmp_path: Path) -> None:
    path = repository / "examples/models/resnet18_timm_c11.onnx"
    report = onnxgraft.rewrite(path, "resnet", output=tmp_path / "out.onnx")
    same, other = onnxgraft.diff(path, path), onnxgraft.diff(path, tmp_path / "out.onnx")
    assert (bool(same), bool(other)) == (False, True)
    assert bool(onnxgraft.verify(path, path))
    assert not onnxgraft.verify(path, tmp_path / "out.onnx")
    results: tuple[Any, ...] = (report, other, onnxgraft.inspect(path, recipes=False))
    for result in results:
        assert "\n" not in repr(result)
        assert len(repr(result)) < 300
    for result in (*results, onnxgraft.explain(path, "quant_gemm")[0], onnxgraft.explain(path, node="/conv1/Conv")[0]):
        assert re.fullmatch("<pre>[^<>]+</pre>", result._repr_html_())
    assert onnxgraft.__version__ == report.version
    assert onnxgraft.find(path, "quant_gemm")
    assert onnxgraft.pattern_of(path, ["/conv1/Conv"]).pattern == ("Conv:0,1i,2i->3",)


class Holder:
    """As in other libraries."""

    def __init__(self, model: onnx.ModelProto) -> None:
        self.model_proto = model


def test_what_is_taken_as_a_model(repository: Path, tmp_path: Path) -> None:
    path = repository / "examples/models/resnet18_timm_c11.onnx"
    model = onnx.load(path)
    assert onnxgraft.explain(Holder(model), "quant_gemm")[0].matches == 1  # type: ignore[call-overload]
    wrong: list[tuple[Any, dict[str, Any], type[Exception], str]] = [
        (Holder(model), {}, TypeError, "changes would be lost"),
        (path, {}, TypeError, "needs output="),
        (model, {"output": tmp_path / "o.onnx"}, TypeError, "needs a model given as a path"),
        (tmp_path / "none.onnx", {"output": tmp_path / "o.onnx"}, ModelFileError, "none.onnx"),
        (path, {"output": path}, ModelFileError, "exists"),
        (3, {}, TypeError, "not int"),
    ]
    for given, options, error, message in wrong:
        with pytest.raises(error, match=message):
            onnxgraft.rewrite(given, "quant_conv", **options)
    assert list(tmp_path.iterdir()) == []
