"""`report-bug`: nothing of the weights gets into a report, and its graph is rewritten as the model is."""

import zipfile
from pathlib import Path
from typing import Any

import numpy as np
import onnx
import pytest
from onnx import ModelProto, SparseTensorProto, TensorProto, helper, numpy_helper

from helpers.small_graphs import operators
from onnxgraft import find, rewrite
from onnxgraft.bug_report import collected, read_graph, shapes_only
from onnxgraft.bug_report.shapes_only import Names
from onnxgraft.cli import main
from onnxgraft.errors import ModelFileError

TEXT, INTEGER, FLOAT = b"WEIGHTMARKED", 987654321, 0.98765
MARKS = ("WEIGHTMARK", "98765")
# What the preparation does depends on shapes that are values.
OPTIONS = {
    (rename, shapes): ["--rename"] * rename + ["--keep-shapes"] * shapes for rename in (0, 1) for shapes in (0, 1)
}


def tensor(name: str, kind: int = TensorProto.FLOAT, **data: Any) -> TensorProto:
    return TensorProto(name=name, data_type=kind, dims=[3], **data, doc_string=TEXT.decode())


def marked() -> ModelProto:
    """A model with a mark wherever a file can hold a value."""
    kinds = {
        "raw": tensor("raw", raw_data=TEXT),
        "floats": tensor("floats", float_data=[FLOAT] * 3),
        "doubles": tensor("doubles", TensorProto.DOUBLE, double_data=[FLOAT] * 3),
        "int32": tensor("int32", TensorProto.INT32, int32_data=[INTEGER] * 3),
        "int64": tensor("int64", TensorProto.INT64, int64_data=[INTEGER] * 3),
        "uint64": tensor("uint64", TensorProto.UINT64, uint64_data=[INTEGER] * 3),
        "strings": tensor("strings", TensorProto.STRING, string_data=[TEXT] * 3),
        "external": tensor("external", data_location=TensorProto.EXTERNAL),
    }
    kinds["external"].external_data.add(key="location", value=f"{TEXT.decode()}.bin")
    sparse = SparseTensorProto(values=tensor("sparse", float_data=[FLOAT] * 3), dims=[INTEGER])
    sparse.indices.CopyFrom(tensor("", TensorProto.INT64, int64_data=[INTEGER] * 3))
    sparse.dims[:] = [9]
    values: dict[str, Any] = {
        "value": kinds["raw"], "value_float": FLOAT, "value_floats": [FLOAT], "value_int": INTEGER,
        "value_ints": [INTEGER], "value_string": TEXT, "value_strings": [TEXT], "sparse_value": sparse,
    }  # fmt: skip
    constants = [helper.make_node("Constant", [], [name], **{name: value}) for name, value in values.items()]
    # A blob as compiled models have it, a table of numbers, a long list, many tensors.
    own = helper.make_node(
        "Own", ["raw"], ["own"], domain="mine", doc_string=TEXT.decode(),
        blob=b"\x00" + TEXT, table=[FLOAT, FLOAT], trees=[INTEGER] * 40, labels=[TEXT.decode()] * 40, sparse=sparse,
        tensors=[kinds["raw"]],
    )  # fmt: skip
    body = helper.make_graph(constants, "body", [], [], [kinds["floats"]], doc_string=TEXT.decode())
    body.sparse_initializer.append(sparse)
    branch = helper.make_node("If", ["condition"], ["chosen"], then_branch=body, else_branch=body)
    graph = helper.make_graph([*constants, own, branch], TEXT.decode(), [], [], list(kinds.values()))
    graph.sparse_initializer.append(sparse)
    graph.quantization_annotation.add(tensor_name="raw").quant_parameter_tensor_names.add(key="k", value=TEXT.decode())
    opsets = [helper.make_opsetid("", 17), helper.make_opsetid("mine", 1)]
    function = helper.make_function(
        "mine", "Made", [], ["value"], [*constants, branch], opsets, doc_string=TEXT.decode()
    )
    model = helper.make_model(graph, opset_imports=opsets, functions=[function], doc_string=TEXT.decode())
    helper.set_model_props(model, {"license": TEXT.decode()})
    model.training_info.add().algorithm.CopyFrom(body)
    model.producer_name = TEXT.decode() * 9
    return model


def test_no_value_gets_into_a_report() -> None:
    model = marked()
    before = model.SerializeToString()
    assert before.count(TEXT) > 40, "the marks are there"
    for name, text in collected(model).items():
        assert not [mark for mark in MARKS if mark in text], name
    # The message itself too: the text could leave out what the bytes have.
    assert TEXT not in shapes_only(model).SerializeToString()
    assert model.SerializeToString() == before


@pytest.mark.parametrize("rename", [False, True])
@pytest.mark.parametrize("prepare", [False, True])
def test_the_graph_of_a_report_is_rewritten_as_the_model_is(
    example_models: list[Path], tmp_path: Path, *, rename: bool, prepare: bool
) -> None:
    for number, path in enumerate(example_models):
        folder = tmp_path / f"{number}"
        assert main(["report-bug", str(path), "-o", str(folder), "-q", *OPTIONS[rename, prepare]]) == 0
        model, read = onnx.load(path), read_graph(folder)
        text = (folder / "graph.txt").read_text()
        assert any(node.name in text for node in model.graph.node if node.name) == (not rename)
        for name in ("quant_conv", "quant_gemm", "replace_concat_quant_v7"):
            assert [match.nodes for match in find(read, name)] == [match.nodes for match in find(model, name)]
        steps = ["quant_conv", "quant_gemm", "replace_quant"]
        reports = [rewrite(one, steps, seed=0, prepare=prepare) for one in (model, read)]
        assert reports[0].replaced == reports[1].replaced > 0
        assert operators(read.graph) == operators(model.graph)
        types = [
            [(t.data_type, list(t.dims)) for t in one.graph.initializer if len(t.dims) > 1] for one in (model, read)
        ]
        assert types[0] == types[1]


def test_values_are_made_up_for_every_type(tmp_path: Path) -> None:
    kinds = sorted(set(TensorProto.DataType.values()) - {TensorProto.UNDEFINED})
    graph = helper.make_graph([], "g", [], [], [TensorProto(name=f"t{k}", data_type=k, dims=[2, 4]) for k in kinds])
    onnx.save(helper.make_model(graph), tmp_path / "all.onnx")
    assert main(["report-bug", str(tmp_path / "all.onnx"), "-o", str(tmp_path / "bug.zip")]) == 0
    for made in read_graph(tmp_path / "bug.zip").graph.initializer:
        assert numpy_helper.to_array(made).shape == (2, 4), made.data_type


def test_the_command_is_run_and_its_output_kept(
    example_models: list[Path], tmp_path: Path, monkeypatch: pytest.MonkeyPatch
) -> None:
    monkeypatch.chdir(tmp_path)
    Path("model.onnx").write_bytes(example_models[0].read_bytes())
    command = ["report-bug", "model.onnx", "-o", "bug.zip", "--rename", "--"]
    assert main([*command, "onnxgraft", "explain", "model.onnx", "-t", "delete_concat", "--node", "*Conv"]) == 0
    with zipfile.ZipFile("bug.zip") as archive:
        files = {name: archive.read(name).decode() for name in archive.namelist()}
    assert set(files) == {"README.txt", "versions.txt", "graph.txt", "command.txt", "output.txt"}
    assert "exit code 0" in files["output.txt"]
    assert f"numpy {np.__version__}" in files["versions.txt"]
    assert "/conv" not in files["output.txt"], "names are replaced there too"
    # Nothing is overwritten, and nothing is left of a report that fails.
    before = Path("bug.zip").read_bytes()
    Path("folder").mkdir()
    for place in ("bug.zip", "folder", "missing/folder"):
        assert main(["report-bug", "model.onnx", "-o", place]) == 1
    assert main(["report-bug", "nowhere.onnx", "-o", "new"]) == 1
    assert (Path("bug.zip").read_bytes(), Path("new").exists(), list(Path("folder").iterdir())) == (before, False, [])


def test_a_broken_model_has_a_report_too(tmp_path: Path) -> None:
    (tmp_path / "broken.onnx").write_bytes(b"\xff" * 9 + TEXT)
    assert main(["report-bug", str(tmp_path / "broken.onnx"), "-o", str(tmp_path / "bug")]) == 0
    text = (tmp_path / "bug/graph.txt").read_text()
    assert "not readable" in text
    assert TEXT.decode() not in text
    with pytest.raises(ModelFileError, match="has no graph"):
        read_graph(tmp_path / "bug")


def test_names_are_replaced_as_words() -> None:
    names = Names(renamed=True)
    made = names("t", "x"), names("t", "/a/x"), names("t", "")
    assert made == ("t0", "t1", "")
    assert names.without("max of 'x' and '/a/x', not /a/xy") == "max of 't0' and 't1', not /a/xy"
