"""The classes of `quant`, as a host sees them: the whole catalogue as a table, and how it answers to misuse."""

from __future__ import annotations

import copy
import importlib.util
import inspect
import pickle
import pydoc
import sys
from abc import ABC, abstractmethod
from pathlib import Path
from typing import Any

import numpy as np
import onnx
import pytest

from onnxgraft import abstract_transformation, quant, transform_utilities

FRAMEWORK, PULL_UP = ("AbstractTransformation",), ("AbstractPullUpTesselQuantTransformation",)
QUANTIZE = ("_QuantTransformation", "AbstractTransformation")
APPLY, NAME, CALLBACK, PAIRS = "apply", "get_simple_name", "_on_replace_subgraph", "_get_subgraphs_to_replace"
BASE_METHODS = ["_update_tesselquant", "_update_weights", "_update_bias", "_update_tesseldequant",
                "_check_current_precision", "_update_quant_weights_operators"]  # fmt: skip
WRONG_LINKS = "Argument 'isomorphic_links_mapping' has incorrect type"
PREPARED = "Transformation prepared for "

# class, bases, short name, what it was prepared for, own methods in order
CATALOGUE: list[tuple[str, tuple[str, ...], str | None, str | None, list[str]]] = [
    ("FuseTesselQuantAnyTransformation", FRAMEWORK, "replace_quant_any", "test of quantization performance",
     [APPLY, NAME]),
    ("ChangeTesselQuantTransformation", ("FuseTesselQuantAnyTransformation",), "replace_quant",
     "ResNet, YOLO, MobileNetv3, BERT", [NAME, CALLBACK]),
    ("UpdateTesselQuantTransformation", FRAMEWORK, "update_tesselquant", "YOLOv7", [APPLY, NAME, CALLBACK]),
    ("AbstractPullUpTesselQuantTransformation", (*FRAMEWORK, "ABC"), None, None, [APPLY, PAIRS, CALLBACK]),
    ("ChangeTesselQuantTransformationV2", PULL_UP, "replace_quant_v2", "YOLO, U2Net", [NAME, PAIRS]),
    *((f"ReplaceConcatQuantTransformationV{k}", PULL_UP, f"replace_concat_quant_v{k}", "YOLO, YOLO5s1", [NAME, PAIRS])
      for k in range(1, 9)),
    ("ReplaceConcatQuantTransformationV9", PULL_UP, "replace_concat_quant_v9", "YOLOV7", [NAME, PAIRS]),
    ("ReplaceConcatQuantTransformationV10", PULL_UP, "replace_concat_quant_v10", "YOLOV7X", [NAME, CALLBACK, PAIRS]),
    ("ChangeGAPCONVTransformation", FRAMEWORK, "change_gap_conv", "EfficientNetB0, SeResNet", [APPLY, NAME, CALLBACK]),
    ("DeleteConcatTransformation", FRAMEWORK, "delete_concat", "YOLO", [APPLY, NAME]),
    ("FuseQuantBatchNormTransformation", FRAMEWORK, "fuse_bn_quant", "YOLO, YOLO5s1", [APPLY, NAME, CALLBACK]),
    ("ReplaceResizeQuantTransformation", PULL_UP, "replace_resize_quant", "U2Net", [NAME, CALLBACK, PAIRS]),
    ("SimplifyShapeV2Transformation", FRAMEWORK, "simplify_shape_v2", "U2Net", [APPLY, NAME, CALLBACK]),
    ("_QuantTransformation", FRAMEWORK, None, "any Neural Network", BASE_METHODS),
    ("QuantConvTransformation", QUANTIZE, "quant_conv", "any CV model", [APPLY, NAME, CALLBACK]),
    ("QuantMatMulTransformation", QUANTIZE, "quant_matmul", "NLP and CV models", [APPLY, NAME, CALLBACK]),
    ("QuantGemmTransformation", QUANTIZE, "quant_gemm", "NLP and CV models", [APPLY, NAME, CALLBACK]),
]  # fmt: skip
RUNNABLE = [row[0] for row in CATALOGUE if row[2]]
CALLBACKS = [row[0] for row in CATALOGUE if CALLBACK in row[4]]


def cls(name: str) -> Any:
    return getattr(quant, name)


def test_module_names_and_the_order_of_classes() -> None:
    public = [name for name in vars(quant) if not name.startswith("__")]
    imports = [
        *("ABC", "abstractmethod", "List", "Tuple", "onnx", "GraphProto", "NodeProto", "TensorProto", "numpy_helper"),
        *("helper", "AttributeProto", "np", "AbstractTransformation", "transform_utilities"),
    ]
    assert public == imports + [row[0] for row in CATALOGUE]
    found = (quant.ABC, quant.abstractmethod, quant.onnx, quant.np, quant.transform_utilities)  # type: ignore[attr-defined]
    assert found == (ABC, abstractmethod, onnx, np, transform_utilities)


@pytest.mark.parametrize("row", CATALOGUE, ids=lambda row: row[0])
def test_a_class_is_its_row(row: tuple[str, tuple[str, ...], str | None, str | None, list[str]]) -> None:
    name, bases, short_name, subject, methods = row
    made = cls(name)
    blanks = " " * (7 if name.endswith("V7") else 8)
    assert made.__doc__ == (None if subject is None else f"\n{blanks}{PREPARED}{subject}\n    ")
    assert made.__bases__ == tuple(cls(base) for base in bases)
    assert (made.__module__, made.__qualname__) == ("onnxgraft.quant", name)
    own = [key for key in vars(made) if callable(vars(made)[key]) and not key.startswith("__")]
    assert own == methods
    if short_name is not None:
        assert made().get_simple_name() == short_name
        assert "__init__" not in vars(made)


def test_pattern_lists() -> None:
    expected: dict[str, dict[str, list[str]]] = {row[0]: {} for row in CATALOGUE}
    for line in (Path(__file__).parent / "data/pattern_lists.txt").read_text().splitlines():
        where, strings = line.split(" = ")
        name, attribute = where.split(".")
        expected[name][attribute] = strings.split(" ")
    for name, lists in expected.items():
        own = {key: value for key, value in vars(cls(name)).items() if key.startswith("subgraph")}
        assert list(own.items()) == list(lists.items()), name
        if lists:
            assert cls(name).__annotations__ == dict.fromkeys(lists, "[str]")


def pair_numbers(name: str) -> list[tuple[str, str]]:
    found = cls(name)
    attributes = {id(value): key for key, value in vars(found).items() if key.startswith("subgraph")}
    return [(attributes[id(p)], attributes[id(r)]) for p, r in found()._get_subgraphs_to_replace()]


def test_listed_pairs_are_the_class_attributes_in_order() -> None:
    numbered = {"ChangeTesselQuantTransformationV2": "_23456", "ReplaceConcatQuantTransformationV1": "12",
                "ReplaceConcatQuantTransformationV3": "12", "ReplaceConcatQuantTransformationV7": "1234"}  # fmt: skip
    for name, bases, *_ in CATALOGUE:
        if bases != PULL_UP:
            continue
        suffixes = [f"{numbered.get(name, '').rstrip('0123456789')}{k}" for k in numbered.get(name, "").strip("_")]
        wanted = [(f"subgraph{k}", f"subgraph_replacement{k}") for k in suffixes or [""]]
        if name.endswith("V6"):
            wanted = [("subgraph1", "subgraph_replacement"), ("subgraph2", "subgraph_replacement")]
        assert pair_numbers(name) == wanted, name
    first, second = (quant.ReplaceConcatQuantTransformationV2()._get_subgraphs_to_replace() for _ in range(2))
    assert first == second
    assert first is not second
    assert isinstance(first[0], tuple)


PASSES = {
    "FuseTesselQuantAnyTransformation": [(f"subgraph_{k}", f"subgraph_rep_{k}") for k in range(1, 5)],
    "ChangeTesselQuantTransformation": [(f"subgraph_{k}", f"subgraph_rep_{k}") for k in range(1, 5)],
    "UpdateTesselQuantTransformation": [(f"subgraph_{k}", f"subgraph_rep_{k}") for k in range(1, 7)],
    "ChangeGAPCONVTransformation": [(f"subgraph_{k}", f"subgraph_rep_{k}") for k in range(1, 3)],
    "DeleteConcatTransformation": [("subgraph", "subgraph_replacement")],
    "FuseQuantBatchNormTransformation": [("subgraph", "subgraph_replacement")],
    "SimplifyShapeV2Transformation": [("subgraph_1", "subgraph_replacement")],
    "QuantConvTransformation": [(f"subgraph_{k}", f"subgraph_replacement_{k}") for k in (1, 2)],
    "QuantGemmTransformation": [(f"subgraph_{k}", f"subgraph_replacement_{k}") for k in (1, 2)],
    "QuantMatMulTransformation": [("subgraph", "subgraph_replacement_1"), ("subgraph_2", "subgraph_replacement_1"),
                                  ("subgraph_3", "subgraph_replacement_2")],
}  # fmt: skip


@pytest.mark.parametrize("name", RUNNABLE)
def test_apply_runs_its_pairs_in_order_and_adds_the_counts_up(name: str) -> None:
    calls: list[tuple[Any, ...]] = []

    class Recorder(cls(name)):  # type: ignore[misc]
        def _replace_all_isomorphic_sub_graphs(self, *args: Any, **kwargs: Any) -> int:
            calls.append((*args, kwargs))
            return int("1" + "0" * (len(calls) - 1))

    graph, recorder = object(), Recorder()
    pairs = [(getattr(recorder, p), getattr(recorder, r)) for p, r in PASSES.get(name, [])]
    pull_up = not pairs
    pairs = pairs or recorder._get_subgraphs_to_replace()
    total = recorder.apply(graph, debug="loud")
    assert total == int("1" * len(pairs))
    assert [(c[0], c[1], c[2]) for c in calls] == [(graph, p, r) for p, r in pairs]
    assert all(c[3]["debug"] == "loud" for c in calls)
    sets = [c[3].get("conv_bias_updated") for c in calls]
    assert all(s is sets[0] for s in sets)
    assert sets[0] == (set() if pull_up else None)
    assert len({id(c[3]) for c in calls}) == len(calls)
    recorder.apply(graph)
    assert calls[-1][3]["debug"] is False
    assert not pull_up or calls[-1][3]["conv_bias_updated"] is not sets[0]


@pytest.mark.parametrize("name", RUNNABLE)
def test_a_count_that_is_no_integer(name: str) -> None:
    class Odd(cls(name)):  # type: ignore[misc]
        def _replace_all_isomorphic_sub_graphs(self, *_: Any, **__: Any) -> Any:
            return self.count

    odd = Odd()
    odd.count = 0.5
    if name == "UpdateTesselQuantTransformation":
        assert odd.apply(None) == 3.0
        return
    with pytest.raises(TypeError, match=r"^Expected int, got float$"):
        odd.apply(None)
    if len(PASSES.get(name, "..")) == 1:
        odd.count = None
        assert odd.apply(None) is None


@pytest.mark.parametrize(
    ("pairs", "message"),
    [
        ([("a", "b", "c")], r"^too many values to unpack \(expected 2\)$"),
        ([("a",)], r"^need more than 1 value to unpack$"),
        ([()], r"^need more than 0 values to unpack$"),
    ],
)
def test_an_element_that_is_no_pair(pairs: list[Any], message: str) -> None:
    class Listed(quant.AbstractPullUpTesselQuantTransformation):
        def _get_subgraphs_to_replace(self) -> Any:
            return pairs

    with pytest.raises(ValueError, match=message):
        Listed().apply(onnx.GraphProto())
    pairs.clear()
    assert Listed().apply(onnx.GraphProto()) == 0


def test_signatures_and_annotations() -> None:
    for name in RUNNABLE:
        wanted = "(self, graph: 'GraphProto', debug=False)"
        wanted += "" if name == "UpdateTesselQuantTransformation" else " -> 'int'"
        assert str(inspect.signature(cls(name).apply)) == wanted
    for name in CALLBACKS:
        assert cls(name)._on_replace_subgraph.__annotations__ == {
            "graph": "GraphProto", "replaced_nodes": "[NodeProto]", "isomorphic_node_mapping": "[int]",
            "isomorphic_links_mapping": "dict", "return": "bool"}  # fmt: skip
    base = quant.AbstractPullUpTesselQuantTransformation._get_subgraphs_to_replace
    assert base.__annotations__ == {"return": "List[Tuple[List[str], List[str]]]"}
    assert str(inspect.signature(quant._QuantTransformation._update_quant_weights_operators)) == (
        "(self, graph, isomorphic_links_mapping, input_names, mode='conv', transpose=False)"
    )
    assert "Transformation prepared for any CV model" in pydoc.render_doc(quant.QuantConvTransformation)


def test_pickling_copying_and_the_abstract_base() -> None:
    for name, *_ in CATALOGUE:
        assert pickle.loads(pickle.dumps(cls(name))) is cls(name)
    instance = quant.QuantConvTransformation()
    for twin in (copy.copy(instance), copy.deepcopy(instance), pickle.loads(pickle.dumps(instance))):
        assert type(twin) is quant.QuantConvTransformation
    with pytest.raises(TypeError, match="abstract"):
        quant.AbstractPullUpTesselQuantTransformation()  # type: ignore[abstract]
    assert inspect.isabstract(quant.AbstractPullUpTesselQuantTransformation)
    assert quant.AbstractPullUpTesselQuantTransformation._get_subgraphs_to_replace(object()) is None  # type: ignore[arg-type]


@pytest.mark.parametrize(
    ("method", "arguments", "message"),
    [
        ("apply", (), "apply() takes at least 2 positional arguments (1 given)"),
        ("apply", (1, 2, 3), "apply() takes at most 3 positional arguments (4 given)"),
        ("get_simple_name", (1,), "get_simple_name() takes exactly 1 positional argument (2 given)"),
        (CALLBACK, (1, 2, 3), f"{CALLBACK}() takes exactly 5 positional arguments (4 given)"),
        (CALLBACK, (1, 2, 3, {}, 5), f"{CALLBACK}() takes exactly 5 positional arguments (6 given)"),
        (CALLBACK, (1, 2, 3, []), f"{WRONG_LINKS} (expected dict, got list)"),
        (CALLBACK, (1, 2, 3, None), f"{WRONG_LINKS} (expected dict, got NoneType)"),
    ],
)  # fmt: skip
def test_misuse_is_refused_before_anything_runs(method: str, arguments: tuple[Any, ...], message: str) -> None:
    for name in RUNNABLE:
        if method == CALLBACK and not issubclass(cls(name), tuple(map(cls, CALLBACKS))):
            continue
        if arguments[-1:] == (None,) and name == "FuseQuantBatchNormTransformation":
            continue  # fails at use
        with pytest.raises(TypeError) as caught:
            getattr(cls(name)(), method)(*arguments)
        assert str(caught.value) == message


def test_a_second_initialisation_is_refused() -> None:
    description = importlib.util.spec_from_file_location("onnxgraft.quant", quant.__file__)
    assert description is not None
    assert description.loader is not None
    message = "Module 'quant' has already been imported. Re-initialisation is not supported."
    with pytest.raises(RuntimeError, match=message):
        description.loader.exec_module(importlib.util.module_from_spec(description))
    assert sys.modules["onnxgraft.quant"] is quant
    assert issubclass(quant.QuantConvTransformation, abstract_transformation.AbstractTransformation)
