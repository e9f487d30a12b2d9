"""Every recipe on every model: it ends well, and its result can be computed."""

from pathlib import Path
from typing import Any

import numpy as np
import onnx
import pytest

from onnxgraft import rewrite
from onnxgraft.evaluation import HARDWARE, lower, lower_to_qdq
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


def computed(model: onnx.ModelProto, values: dict[str, Any]) -> dict[str, Any]:
    options = runtime.SessionOptions()
    options.log_severity_level = 4
    options.graph_optimization_level = runtime.GraphOptimizationLevel.ORT_DISABLE_ALL
    session = runtime.InferenceSession(model.SerializeToString(), options, providers=["CPUExecutionProvider"])
    names = [value.name for value in model.graph.output]
    return dict(zip(names, session.run(names, values), strict=True))


def check_that_it_computes_what_it_declares(model: onnx.ModelProto) -> None:
    lowered = lower(model, HARDWARE)
    onnx.checker.check_model(lowered, full_check=True)
    made = {name for node in model.graph.node for name in node.output}
    declared = {value.name: value.type.tensor_type for value in model.graph.value_info}
    assert set(declared) <= made | {tensor.name for tensor in model.graph.initializer}
    outputs = {value.name for value in lowered.graph.output}
    lowered.graph.output.extend(onnx.ValueInfoProto(name=name) for name in declared.keys() & made - outputs)
    values = random_values(inputs_of(model, {}), 0)
    results = computed(lowered, values)
    assert all(np.isfinite(results[name]).all() for name in outputs)
    as_pairs = lower_to_qdq(model)
    onnx.checker.check_model(as_pairs, full_check=True)
    for name, found in computed(as_pairs, values).items():
        noise = np.square(found.astype(np.float64) - results[name]).sum()
        assert noise <= 1e-8 * np.square(results[name].astype(np.float64)).sum(), name  # 80 dB
    quantized = find(model.graph, {entry.domain: entry.version for entry in model.opset_import}).tensors
    assert quantized <= declared.keys() | outputs
    for name in declared.keys() & made:
        sizes = [size.dim_value if size.HasField("dim_value") else None for size in declared[name].shape.dim]
        assert len(sizes) == results[name].ndim, name
        assert all(size in {None, real} for size, real in zip(sizes, results[name].shape, strict=True)), name
        real_type = onnx.helper.np_dtype_to_tensor_dtype(results[name].dtype)
        assert declared[name].elem_type in (QUANTIZED if name in quantized else {real_type}), name
