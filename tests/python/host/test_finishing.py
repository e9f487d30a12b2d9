"""What a run does after its transformations: weights and biases that fit, declared types, listed initializers."""

from typing import Any

import numpy as np
import onnx
import pytest

from helpers.occurrences import packed
from helpers.small_graphs import Array, model_of
from onnxgraft import rewrite
from onnxgraft.engine import Report
from onnxgraft.evaluation import Convention, evaluate

EXACT = Convention(rounding=True, element_type="float64", centred=True)


def run(model: onnx.ModelProto, name: str, **options: Any) -> Report:
    return rewrite(model, name, prepare=False, **options)


def joined(shapes: tuple[Any, Any], attributes: str = "", offsets: tuple[int, int] = (0, 0), axis: int = 1) -> Any:
    """Two quantized branches of 3 and 2 channels in front of one convolution."""
    rng = np.random.default_rng(1)
    lines = [
        f"TesselQuant:offset={offsets[0]} a -> qa", f"TesselQuant:offset={offsets[1]} b -> qb",
        f"Concat:axis={axis} qa qb -> c", f"Conv{attributes} c w bias -> y",
        "TesselDequant y s -> d", "LeakyRelu d -> e", "TesselQuant e -> q",
    ]  # fmt: skip
    tensors: dict[str, Array] = {
        "w": rng.integers(-128, 127, (4, 5, 3, 3), dtype=np.int8),
        "bias": rng.integers(-999, 999, 4, dtype=np.int32),
        "s": packed(np.array([1, 0.5, 2, 0.25], np.float32)),
    }
    inputs = dict(zip("ab", shapes, strict=True))
    return model_of(lines, inputs=inputs, outputs=["e"], tensors=tensors)


KNOWN = (1, 3, 6, 6), (1, 2, 6, 6)


@pytest.mark.parametrize(
    "model",
    [joined(KNOWN), joined(KNOWN, offsets=(3, -5)), joined(KNOWN, axis=-3), joined(([1, 3, None, "w"], None))],
    ids=["plain", "offsets", "axis", "one"],
)
def test_split_weights_compute_what_the_joined_convolution_computed(model: onnx.ModelProto) -> None:
    rng = np.random.default_rng(2)
    inputs = {name: rng.integers(-60, 60, shape).astype("f") for name, shape in zip("ab", KNOWN, strict=True)}
    before = evaluate(model, inputs, EXACT)
    report = run(model, "delete_concat")
    assert (report.replaced, report.finished) == (1, 1)
    np.testing.assert_array_equal(before["e"], evaluate(model, inputs, EXACT)["e"])
    dims = {tensor.name: list(tensor.dims) for tensor in model.graph.initializer}
    assert [dims[node.input[1]][1] for node in model.graph.node if node.op_type == "Conv"][:2] == [3, 2]
    assert Report.from_json(report.to_json()) == report


@pytest.mark.parametrize(
    ("model", "reason"),
    [
        (joined((None, None)), "neither of 'qa' and 'qb' has a known number of channels"),
        (joined(((1, 4, 6, 6), (1, 2, 6, 6))), "branches of 4 and 2 channels do not fit a weight of 5"),
        (joined(KNOWN, axis=2), "joined along axis 2"),
        (joined(KNOWN, attributes=":group=5"), "a weight of 5 groups"),
    ],
)
def test_what_cannot_be_split_is_undone(model: onnx.ModelProto, reason: str) -> None:
    before = model.SerializeToString(deterministic=True)
    report = run(model, "delete_concat", until_stable=True)
    assert model.SerializeToString(deterministic=True) == before
    assert (report.replaced, report.finished, len(report.warnings)) == (0, 0, 1)
    assert reason in report.warnings[0]
    assert reason in " ".join(str(report).split())
    assert run(model, "delete_concat", finish=False).replaced == 1
