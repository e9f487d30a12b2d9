"""Models evaluated before and after each transformation that keeps the computed function.

Quantize nodes with rounding and without: where nodes only move or merge, every bit of every output must stay.
"""

from pathlib import Path

import numpy as np
import onnx
import pytest
from onnx import numpy_helper

from helpers.models import Array, fast_resize, make_model, random_inputs
from onnxgraft import catalogue
from onnxgraft.evaluation import Convention, evaluate

ROUNDING = [Convention(), Convention(rounding=True)]
PULL_UP = ["replace_quant_v2", *(f"replace_concat_quant_v{k}" for k in range(1, 11)), "replace_resize_quant"]
MERGING = ["replace_quant", "replace_quant_any"]
V10_PRODUCERS = [s for k in range(1, 6) for s in (f"TesselDequant:4{k},5{k}i->6{k}", f"Mul:6{k},7{k}->{k}")]


def pairs(*names: str) -> list[tuple[str, tuple[str, ...]]]:
    rows = [(name, pattern) for name in names for pattern, _ in catalogue.find_row(name).pairs]
    return [
        row for row in rows if row[1][3:4] != ("Concat:2,3,4,1->5",)
    ]  # reorders the channels, so it has a test of its own


def readers(quantized: str) -> list[str]:
    """Convolutions with and without bias on the quantized tensor."""
    q = quantized
    return [f"Conv:{q},901i,902i->903", "TesselDequant:903,904i->905", f"Conv:{q},911i->913",
            "TesselDequant:913,914i->915"]  # fmt: skip


def pulled_up(name: str, pattern: tuple[str, ...], offset: float = 0.0) -> tuple[onnx.ModelProto, onnx.ModelProto]:
    """A model around the pattern, before and after; the quantize node is the last of the pattern."""
    around = V10_PRODUCERS if name.endswith("v10") else []
    nodes = [*pattern, *around, *readers(pattern[-1].rpartition("->")[2])]
    before = make_model(nodes, {len(pattern) - 1: {"offset": offset}})
    return before, applied(name, before)


def applied(name: str, before: onnx.ModelProto) -> onnx.ModelProto:
    after = onnx.ModelProto.FromString(before.SerializeToString())
    assert catalogue.find_row(name).apply(after.graph) == 1
    assert after.graph != before.graph
    return after


def both(
    before: onnx.ModelProto, after: onnx.ModelProto, convention: Convention, outputs: tuple[str, ...] = ()
) -> tuple[dict[str, Array], dict[str, Array]]:
    inputs = random_inputs(before)
    first, second = (evaluate(model, inputs, convention, outputs=outputs) for model in (before, after))
    for name, values in first.items():
        assert values.std() > 0.05, f"{name} is nearly constant, which proves nothing"
        assert values.shape == second[name].shape
    return first, second


def assert_equal(first: dict[str, Array], second: dict[str, Array]) -> None:
    for name, values in first.items():
        np.testing.assert_array_equal(values, second[name], name)


@pytest.mark.parametrize(("name", "pattern"), pairs(*MERGING))
def test_merged_quantize_nodes_of_equal_parameters(name: str, pattern: tuple[str, ...]) -> None:
    before = make_model(pattern, {0: {"offset": 2.5}, 2: {"offset": 2.5}})
    after = applied(name, before)
    for convention in ROUNDING:
        assert_equal(*both(before, after, convention))


@pytest.mark.parametrize(("name", "pattern"), pairs(*PULL_UP))
def test_pulled_up_offsets(name: str, pattern: tuple[str, ...]) -> None:
    """The bias absorbs the offset that a convolution subtracted while it read the quantize node."""
    for convention in ROUNDING:
        assert_equal(*both(*pulled_up(name, pattern), convention))
    before, after = pulled_up(name, pattern, offset=3.0)
    exact = Convention(rounding=True, element_type="float64", centred=True)
    assert_equal(*both(before, after, exact))
    # Without that subtraction, the sums differ by exactly the correction, and the quantized tensor does not differ.
    quantized = f"t{pattern[-1].rpartition('->')[2]}"
    plain = Convention(rounding=True, element_type="float64")
    first, second = both(before, after, plain, (quantized, "t903", "t913"))
    weights = {tensor.name: numpy_helper.to_array(tensor) for tensor in before.graph.initializer}
    for conv, weight in (("t903", "t901"), ("t913", "t911")):
        first[conv] = first[conv] - 3 * weights[weight].sum(axis=(1, 2, 3)).reshape(1, -1, 1, 1)
    assert_equal(first, second)


def test_second_pair_of_v1_reorders_the_channels() -> None:
    """The joined tensors 2, 3, 4, 1 come out as 3, 4, 1, 2: the first quarter of the channels goes to the end."""
    name = "replace_concat_quant_v1"
    before = make_model(catalogue.find_row(name).pairs[1][0])
    first, second = both(before, applied(name, before), Convention(rounding=True))
    np.testing.assert_array_equal(np.roll(first["t99"], -4, axis=1), second["t99"])
    assert (first["t99"] != second["t99"]).any()


# Offsets have no effect if the convolution subtracts that of its own quantize node.
Reading = tuple[tuple[float, float], Convention]
READINGS: list[Reading] = [
    ((0.0, 0.0), Convention(element_type="float64")),
    ((3.0, -2.0), Convention(element_type="float64", centred=True)),
]


def scaled(
    name: str, pattern: tuple[str, ...], scales: tuple[float, float], reading: Reading
) -> tuple[onnx.ModelProto, dict[str, Array], dict[str, Array]]:
    """The model afterwards, and the outputs of both; the first and the last quantize node have these scales."""
    quantizers = [k for k, node in enumerate(pattern) if node.startswith("TesselQuant")]
    rows = zip((quantizers[0], quantizers[-1]), scales, reading[0], strict=True)
    before = make_model(pattern, {k: {"scale": scale, "offset": offset} for k, scale, offset in rows})
    after = applied(name, before)
    return after, *both(before, after, reading[1])


@pytest.mark.parametrize("reading", READINGS)
@pytest.mark.parametrize(("name", "pattern"), pairs("update_tesselquant"))
@pytest.mark.parametrize("scales", [(0.5, 1.0), (1.0, 0.375), (0.3, 0.7)])
def test_updated_quantize_nodes(
    name: str, pattern: tuple[str, ...], scales: tuple[float, float], reading: Reading
) -> None:
    """(W(rqx) + trunc(rb)) s/r against (W(qx) + b) s: the truncation loses less than 1, so less than s/r."""
    after, first, second = scaled(name, pattern, scales, reading)
    (words,) = (numpy_helper.to_array(t) for t in after.graph.initializer if t.name == "t6")
    bound = words.astype(np.uint32).view(np.float32).reshape(1, -1, 1, 1)
    if scales[1] == 2 * scales[0]:  # nothing to truncate
        bound = np.zeros_like(bound)
    rounding = 4e-7 * np.abs(first["t5"])  # of the scales and of the result, which are 32 bits wide
    assert (np.abs(first["t5"] - second["t5"]) <= bound + rounding).all()
    np.testing.assert_array_equal(first["t19"], second["t19"])


@pytest.mark.parametrize("reading", READINGS)
@pytest.mark.parametrize(("name", "pattern"), pairs("change_gap_conv"))
def test_convolutions_behind_a_pool_in_floating_point(name: str, pattern: tuple[str, ...], reading: Reading) -> None:
    _, first, second = scaled(name, pattern, (0.3, 1.7), reading)
    np.testing.assert_allclose(first["t16"], second["t16"], rtol=2e-6, atol=0)


def test_simplified_shape() -> None:
    before = make_model(catalogue.find_row("simplify_shape_v2").pairs[0][0])
    after = applied("simplify_shape_v2", before)
    assert [node.op_type for node in after.graph.node] == ["Resize"]
    assert_equal(*both(before, after, Convention()))


@fast_resize
def test_real_models(example_models: list[Path]) -> None:
    """One transformation after the other on quantized exports; each that fires keeps every bit of the outputs."""
    fired = set()
    for path in example_models:
        model = onnx.load(path)
        np.random.seed(0)
        assert catalogue.find_row("quant_conv").apply(model.graph)
        inputs = random_inputs(model)
        outputs = evaluate(model, inputs, Convention(rounding=True))
        for name in [*MERGING, "update_tesselquant", *PULL_UP, "change_gap_conv", "simplify_shape_v2"]:
            if catalogue.find_row(name).apply(model.graph):
                fired.add(name)
                assert_equal(outputs, evaluate(model, inputs, Convention(rounding=True)))
    assert fired >= {"replace_quant", "update_tesselquant", "replace_quant_v2"}
