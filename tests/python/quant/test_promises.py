"""What each callback promises not to change, on random graphs, and whose promises count."""

from collections.abc import Callable
from functools import partial
from typing import Any
from unittest.mock import MagicMock

import pytest
from onnx import GraphProto, NodeProto, TensorProto

from helpers.classes import CLASSES, apply, class_graph
from onnxgraft import quant
from onnxgraft.abstract_transformation import AbstractTransformation, observed

CALLBACK = "_on_replace_subgraph"
PROMISES = {name: getattr(cls, CALLBACK).changes for name, cls in CLASSES.items()}
State = list[tuple[NodeProto, str, str, list[str], list[str]]]


def state(graph: GraphProto) -> State:
    return [(node, node.op_type, node.name, list(node.input), list(node.output)) for node in graph.node]


def broken(changes: str, before: State, graph: GraphProto) -> str | None:
    """A change that the callback has promised not to make."""
    after = state(graph)
    if len(before) != len(after) or any(old[0] is not new[0] for old, new in zip(before, after, strict=True)):
        return "the node list"
    held = {tensor.name for tensor in graph.initializer}
    for old, new in zip(before, after, strict=True):
        given = (*old[:3], [*new[3][:2], *new[3][3:]], *old[4:])
        new_bias = old[1] == "Conv" and new[3][2:3] and old[3] in (new[3][:2], [*new[3][:2], "", *new[3][3:]])
        if old == new or (changes == "bias inputs" and new_bias and (new == given or new[3][2] in held | WAITING)):
            continue
        return f"node {old[2]}"
    return None


WAITING: set[str] = set()  # names of biases that are added to the graph at the end of a round


def watched(cls: Any, found: list[str], edit: Callable[[GraphProto], Any] | None = None) -> Any:
    """An instance whose callback is compared with its promise at each call."""
    transformation = cls()

    def watch(original: Any, graph: GraphProto, *arguments: Any, **keywords: Any) -> Any:
        before = state(graph)
        accepted = original(graph, *arguments, **keywords)
        if edit is not None:
            edit(graph)
        WAITING.update(keywords.get("conv_bias_updated", ()))
        problem = broken(getattr(cls, CALLBACK).changes, before, graph)
        found.extend([problem] if problem else [])
        return accepted

    vars(transformation)[CALLBACK] = observed(getattr(transformation, CALLBACK), watch)
    return transformation


@pytest.mark.parametrize("name", sorted(CLASSES))
def test_promises_are_kept(name: str) -> None:
    found: list[str] = []
    for seed in range(40):
        apply(watched(CLASSES[name], found), class_graph(name, seed))
    assert found == []


@pytest.mark.parametrize(
    ("name", "edit"),
    [
        ("quant_conv", lambda graph: graph.node.sort(key=lambda node: node.name, reverse=True)),
        ("quant_conv", lambda graph: graph.node[0].input.append("more")),
        ("replace_quant_v2", lambda graph: graph.node[0].output.append("more")),
        ("replace_quant_v2", lambda graph: graph.node.add()),
    ],
)
def test_a_broken_promise_is_seen(name: str, edit: Callable[[GraphProto], Any]) -> None:
    found: list[str] = []
    for seed in range(20):
        apply(watched(CLASSES[name], found, edit), class_graph(name, seed))
    assert found


def test_what_is_promised() -> None:
    family = {name for name, cls in CLASSES.items() if issubclass(cls, quant.AbstractPullUpTesselQuantTransformation)}
    assert {name for name, changes in PROMISES.items() if changes == "bias inputs"} == family
    assert set(PROMISES.values()) == {"bias inputs", "contents"}


class Pairs(quant.ReplaceResizeQuantTransformation):
    """Derived as the documentation describes."""

    def _get_subgraphs_to_replace(self) -> Any:
        return [(self.subgraph, self.subgraph_replacement)] * 2


class OwnBias(quant.QuantConvTransformation):
    def _update_bias(self, graph: GraphProto, bias_names: Any) -> TensorProto:
        return super()._update_bias(graph, bias_names)


class OwnCallback(quant.QuantConvTransformation):
    def _on_replace_subgraph(self, *arguments: Any, **keywords: Any) -> bool:
        return super()._on_replace_subgraph(*arguments, **keywords)


class Between(quant.AbstractPullUpTesselQuantTransformation):
    def _on_replace_subgraph(self, *arguments: Any, **keywords: Any) -> bool:
        return super()._on_replace_subgraph(*arguments, **keywords)


class Inheriting(quant.ReplaceResizeQuantTransformation, Between):
    """Its callback is built in, but a method that it calls is not."""


def session(transformation: Any) -> str | None:
    """The promises of the transformation's callback that count."""
    callback = getattr(transformation, CALLBACK)
    function: Any = getattr(callback, "__func__", None)
    if type(function).__name__ != "builtin_function":
        return None
    begun = function.session(transformation, GraphProto())
    return begun and str(begun.changes)


@pytest.mark.parametrize(
    ("cls", "believed"),
    [
        (quant.QuantConvTransformation, "contents"),
        (quant.ReplaceConcatQuantTransformationV10, "bias inputs"),
        (AbstractTransformation, "contents"),
        (Pairs, "bias inputs"),
        (OwnBias, None),
        (OwnCallback, None),
        (Inheriting, None),
    ],
)
def test_who_is_believed(cls: Any, believed: str | None) -> None:
    transformation = cls()
    assert session(transformation) == believed
    # Attributes of other classes do not count, nor does a method set on the instance.
    vars(transformation)[CALLBACK] = MagicMock()
    assert session(transformation) is None
    del vars(transformation)[CALLBACK]
    if cls is quant.QuantConvTransformation:
        original = transformation._update_weights
        vars(transformation)["_update_weights"] = partial(original)
        assert session(transformation) is None
        vars(transformation)["_update_weights"] = observed(original, lambda ask, *a, **k: ask(*a, **k))
        assert session(transformation) == believed


def test_a_given_bias_is_kept_for_a_second_pair() -> None:
    """The second pass reads again what the callback of the first has written."""
    outcomes = []
    for own in (False, True):
        counts = []
        for seed in range(60):
            graph = class_graph("replace_resize_quant", seed)
            transformation: Any = Pairs()
            if own:
                inner = transformation._on_replace_subgraph
                vars(transformation)[CALLBACK] = lambda *a, inner=inner, **k: inner(*a, **k)
            counts.append((apply(transformation, graph), graph.SerializeToString()))
        outcomes.append([(str(count), data) for count, data in counts])
    assert outcomes[0] == outcomes[1]
