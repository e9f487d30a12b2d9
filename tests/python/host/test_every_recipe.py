"""Every recipe on every model: it ends well, and its result can be computed."""

from pathlib import Path
from typing import Any

import numpy as np
import onnx
import pytest

from onnxgraft import rewrite
from onnxgraft.evaluation import Convention, lower
from onnxgraft.preparation import prepare
from onnxgraft.recipe_book import recipes
from onnxgraft.samples.random_values import inputs_of, random_values
from onnxgraft.tensor_types.quantized_values import find

runtime: Any = pytest.importorskip("onnxruntime")
REPOSITORY = Path(__file__).resolve().parents[3]
MODELS = sorted([*(REPOSITORY / "examples/models").glob("*.onnx"), *(REPOSITORY / "tests/models").glob("*.onnx")])
# Recipes of one list give one result.
RECIPES = {recipe.transformations: name for name, recipe in recipes().items()}
QUANTIZED = {onnx.TensorProto.INT8, onnx.TensorProto.INT32}


@pytest.mark.parametrize("path", MODELS, ids=lambda path: path.stem)
def test_every_recipe_gives_a_model_that_computes(path: Path) -> None:
    prepared, results = onnx.load(path), set()
    prepare(prepared)
    for name in RECIPES.values():
        model = onnx.ModelProto.FromString(prepared.SerializeToString())
        report = rewrite(model, name, seed=0, prepare=False, details="counts")
        assert not report.warnings
        assert not any(step.undone or step.error for step in report.steps)
        content = model.SerializeToString(deterministic=True)
        if content not in results:
            results.add(content)
            check_that_it_computes_what_it_declares(model)
    assert results - {prepared.SerializeToString(deterministic=True)}


def check_that_it_computes_what_it_declares(model: onnx.ModelProto) -> None:
    lowered = lower(model, Convention(rounding=True, centred=True))
    onnx.checker.check_model(lowered, full_check=True)
    made = {name for node in model.graph.node for name in node.output}
    declared = {value.name: value.type.tensor_type for value in model.graph.value_info}
    assert set(declared) <= made | {tensor.name for tensor in model.graph.initializer}
    outputs = {value.name for value in lowered.graph.output}
    lowered.graph.output.extend(onnx.ValueInfoProto(name=name) for name in declared.keys() & made - outputs)
    options = runtime.SessionOptions()
    options.log_severity_level = 4
    options.graph_optimization_level = runtime.GraphOptimizationLevel.ORT_DISABLE_ALL
    session = runtime.InferenceSession(lowered.SerializeToString(), options, providers=["CPUExecutionProvider"])
    names = [value.name for value in lowered.graph.output]
    results = dict(zip(names, session.run(names, random_values(inputs_of(model, {}), 0)), strict=True))
    assert all(np.isfinite(results[name]).all() for name in outputs)
    quantized = find(model.graph, {entry.domain: entry.version for entry in model.opset_import}).tensors
    assert quantized <= declared.keys() | outputs
    for name in declared.keys() & made:
        sizes = [size.dim_value if size.HasField("dim_value") else None for size in declared[name].shape.dim]
        assert len(sizes) == results[name].ndim, name
        assert all(size in {None, real} for size, real in zip(sizes, results[name].shape, strict=True)), name
        real_type = onnx.helper.np_dtype_to_tensor_dtype(results[name].dtype)
        assert declared[name].elem_type in (QUANTIZED if name in quantized else {real_type}), name
