"""The classes of `quant`, as a host sees them: the whole catalogue as a table, and its reaction to misuse."""

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

from onnxgraft import quant, transform_utilities
from onnxgraft.abstract_transformation import AbstractTransformation

CALLBACK = "_on_replace_subgraph"
WRONG_LINKS = "Argument 'isomorphic_links_mapping' has incorrect type"
CLASSES: dict[str, Any] = {name: made for name, made in vars(quant).items() if hasattr(made, CALLBACK)}
CLASSES.pop("AbstractTransformation")
RUNNABLE = {name: made for name, made in CLASSES.items() if "get_simple_name" in vars(made)}
IMPORTS = ("ABC", "abstractmethod", "List", "Tuple", "onnx", "GraphProto", "NodeProto", "TensorProto", "numpy_helper",
           "helper", "AttributeProto", "np", "AbstractTransformation", "transform_utilities")  # fmt: skip


def passes(made: Any, graph: Any, **keywords: Any) -> tuple[int, list[tuple[Any, ...]]]:
    """What `apply` returns if its first pass counts 1, the second 10 and so on, and the arguments of the passes."""
    calls: list[tuple[Any, ...]] = []

    class Recorder(made):  # type: ignore[misc]
        def _replace_all_isomorphic_sub_graphs(self, *args: Any, **kwargs: Any) -> int:
            calls.append((*args, kwargs))
            return int("1" + "0" * (len(calls) - 1))

    return Recorder().apply(graph, **keywords), calls


def described(name: str) -> list[str]:
    """The class as lines: bases and doc string, then members in order, its short name and the pairs that it runs."""
    made = CLASSES[name]
    lists = {id(value): key for key, value in inspect.getmembers(made) if key.startswith("subgraph")}
    lines = [f"{name}({', '.join(base.__name__ for base in made.__bases__)}) {made.__doc__!r}"]
    for key, value in vars(made).items():
        if key.startswith("subgraph"):
            lines.append(f"  {key}: {made.__annotations__[key]!r} = {' '.join(value)}")
        elif callable(value) and not key.startswith("__"):
            lines.append(f"  {key}{inspect.signature(value)}")
    if name in RUNNABLE:
        lines.append(f"  is {made().get_simple_name()}")
        lines += [f"  runs {lists[id(call[1])]} {lists[id(call[2])]}" for call in passes(made, None)[1]]
    return lines


def test_the_catalogue() -> None:
    """Names, bases, doc strings, signatures, pattern lists and passes, all as hosts know them."""
    lines = [line for name in CLASSES for line in described(name)]
    assert lines == (Path(__file__).parents[1] / "data/catalogue.txt").read_text().splitlines()
    assert [name for name in vars(quant) if not name.startswith("__")] == [*IMPORTS, *CLASSES]
    found = (quant.ABC, quant.abstractmethod, quant.onnx, quant.np, quant.transform_utilities)  # type: ignore[attr-defined]
    assert found == (ABC, abstractmethod, onnx, np, transform_utilities)
    for name, made in CLASSES.items():
        assert (made.__module__, made.__qualname__, "__init__" in vars(made)) == ("onnxgraft.quant", name, False)
    first, second = (quant.ReplaceConcatQuantTransformationV2()._get_subgraphs_to_replace() for _ in range(2))
    assert (first, type(first[0])) == (second, tuple)
    assert first is not second
    assert "Transformation prepared for any CV model" in pydoc.render_doc(quant.QuantConvTransformation)


@pytest.mark.parametrize("name", RUNNABLE)
def test_apply_adds_its_counts_up_and_hands_its_arguments_on(name: str) -> None:
    graph, made = object(), RUNNABLE[name]
    total, calls = passes(made, graph, debug="loud")
    assert total == int("1" * len(calls))
    assert all(call[0] is graph and call[3]["debug"] == "loud" for call in calls)
    sets = [call[3].get("conv_bias_updated") for call in calls]
    assert all(s is sets[0] for s in sets)
    assert sets[0] == (set() if issubclass(made, quant.AbstractPullUpTesselQuantTransformation) else None)
    assert len({id(call[3]) for call in calls}) == len(calls)
    again = passes(made, graph)[1][-1][3]
    assert again["debug"] is False
    assert sets[0] is None or again["conv_bias_updated"] is not sets[0]


@pytest.mark.parametrize("name", RUNNABLE)
def test_a_count_that_is_no_integer(name: str) -> None:
    made = RUNNABLE[name]

    class Odd(made):  # type: ignore[misc,valid-type]
        def _replace_all_isomorphic_sub_graphs(self, *_: Any, **__: Any) -> Any:
            return self.count

    odd = Odd()
    odd.count = 0.5
    if name == "UpdateTesselQuantTransformation":
        assert odd.apply(None) == 3.0
        return
    with pytest.raises(TypeError, match=r"^Expected int, got float$"):
        odd.apply(None)
    if name in ("DeleteConcatTransformation", "FuseQuantBatchNormTransformation", "SimplifyShapeV2Transformation"):
        odd.count = None
        assert odd.apply(None) is None


def test_an_element_that_is_no_pair() -> None:
    pairs: list[tuple[str, ...]] = []

    class Listed(quant.AbstractPullUpTesselQuantTransformation):
        def _get_subgraphs_to_replace(self) -> Any:
            return pairs

    assert Listed().apply(onnx.GraphProto()) == 0
    for length, message in enumerate(("need more than 0 values", "need more than 1 value", "", "too many values")):
        pairs[:] = [("a",) * length]
        if message:
            with pytest.raises(ValueError, match=f"^{message} to unpack"):
                Listed().apply(onnx.GraphProto())


def test_pickling_copying_and_the_abstract_base() -> None:
    for made in CLASSES.values():
        assert pickle.loads(pickle.dumps(made)) is made
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
    for name, made in RUNNABLE.items():
        if method == CALLBACK and getattr(made, CALLBACK) is getattr(AbstractTransformation, CALLBACK):
            continue
        if arguments[-1:] == (None,) and name == "FuseQuantBatchNormTransformation":
            continue  # fails at use
        with pytest.raises(TypeError) as caught:
            getattr(made(), method)(*arguments)
        assert str(caught.value) == message


def test_a_second_initialisation_is_refused() -> None:
    loader = quant.__spec__.loader
    assert loader is not None
    message = "Module 'quant' has already been imported. Re-initialisation is not supported."
    with pytest.raises(RuntimeError, match=message):
        loader.exec_module(importlib.util.module_from_spec(quant.__spec__))
    assert sys.modules["onnxgraft.quant"] is quant
    assert issubclass(quant.QuantConvTransformation, AbstractTransformation)
