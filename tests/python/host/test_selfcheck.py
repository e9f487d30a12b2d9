"""The self-test passes correct transformations and finds planted faults."""

import uuid
from collections.abc import Callable
from typing import Any

import numpy as np
import pytest
from onnx import GraphProto, helper, numpy_helper

from onnxgraft.abstract_transformation import AbstractTransformation
from onnxgraft.catalogue import rows
from onnxgraft.selfcheck import SelfCheckError, check_transformation

KEEP = (["Conv:0,1i->2", "Relu:2->3"], ["#0", "#1"])
FACTOR = (["Conv:0,1i->2", "Relu:2->3"], ["#0", "Mul:2,100i->101", "#1:101->3"])


class Sound(AbstractTransformation):
    """Puts a `Mul` before the activation; refuses if it has done so already."""

    pair = FACTOR

    def apply(self, graph: GraphProto, debug: bool = False) -> Any:
        return self._replace_all_isomorphic_sub_graphs(graph, *self.pair, debug=debug)

    def _on_replace_subgraph(self, graph: GraphProto, *found: Any, **kwargs: Any) -> bool:
        graph.initializer.append(numpy_helper.from_array(np.ones(1, np.float32), found[2]["100"]))
        return True


def faulty(pair: Any = KEEP, **methods: Callable[..., Any]) -> type[AbstractTransformation]:
    return type("Faulty", (Sound,), {"pair": pair, **{f"_{n}" if n != "apply" else n: m for n, m in methods.items()}})


def _accept(*_: Any) -> bool:
    return True


def _write_twice(self: Any, graph: GraphProto, nodes: Any, mapping: Any, links: Any) -> bool:
    graph.node.append(helper.make_node("Relu", [links["2"]], [links["3"]]))
    return True


def _write_and_refuse(self: Any, graph: GraphProto, nodes: Any, mapping: Any, links: Any) -> bool:
    graph.node[mapping[0]].doc_string = "seen"
    return False


def _remove_another(self: Any, graph: GraphProto, nodes: Any, mapping: Any, links: Any) -> bool:
    for other in [node for node in graph.node if node not in nodes][:1]:
        graph.node.remove(other)
    return True


def _reverse(self: Any, graph: GraphProto, *found: Any) -> bool:
    nodes = [graph.node.pop() for _ in range(len(graph.node))]
    graph.node.extend(nodes)
    return True


def _random_name(self: Any, graph: GraphProto, nodes: Any, mapping: Any, links: Any) -> bool:
    graph.node[mapping[1]].name = str(uuid.uuid4())
    return True


def _same_name(self: Any, graph: GraphProto, nodes: Any, mapping: Any, links: Any) -> bool:
    graph.node[mapping[0]].name = graph.node[mapping[1]].name = "twin"
    return True


def _drop_weight_and_raise(self: Any, graph: GraphProto, nodes: Any, mapping: Any, links: Any) -> bool:
    weight = next(tensor for tensor in graph.initializer if tensor.name == links["1"])
    if numpy_helper.to_array(weight).sum() > 0:
        graph.initializer.remove(weight)
        raise ValueError("cannot scale this")
    return True


def _edit_anyway(self: Any, graph: GraphProto) -> Any:
    graph.doc_string = "seen"
    return Sound.apply(self, graph)


def _again_and_again(self: Any, graph: GraphProto) -> int:
    count = 0
    while found := self._replace_all_isomorphic_sub_graphs(graph, ["Relu:0->1"], ["#0:0->100", "#0:100->1"]):
        count += found
    return count


FAULTS: dict[str, tuple[str, type[AbstractTransformation]]] = {
    "initializer not made": ("dangling", faulty(FACTOR, on_replace_subgraph=_accept)),
    "second writer": ("writers", faulty(on_replace_subgraph=_write_twice)),
    "writes, then refuses": ("refusal", faulty(on_replace_subgraph=_write_and_refuse)),
    "takes another node": ("other nodes", faulty(on_replace_subgraph=_remove_another)),
    "reverses the nodes": ("order", faulty(on_replace_subgraph=_reverse)),
    "random names": ("determinism", faulty(on_replace_subgraph=_random_name)),
    "equal names": ("node names", faulty(on_replace_subgraph=_same_name)),
    "half done at an exception": ("dangling", faulty(on_replace_subgraph=_drop_weight_and_raise)),
    "number for text": ("always raises", faulty(FACTOR, on_replace_subgraph=lambda *found: found[4][100])),
    "one too many": ("count", faulty(apply=lambda *given: Sound.apply(*given) + 1, on_replace_subgraph=_accept)),
    "no count": ("count", faulty(apply=lambda *given: str(Sound.apply(*given)), on_replace_subgraph=_accept)),
    "edits without a match": ("refusal", faulty(apply=_edit_anyway, on_replace_subgraph=lambda *_: False)),
    "says nothing": ("answer", faulty(on_replace_subgraph=lambda *_: None)),
    "no end": ("endless", faulty(apply=_again_and_again, on_replace_subgraph=_accept)),
    "cannot match": ("pattern", faulty((["Relu:0->1", "Relu:1->0"], ["#0", "#1"]), on_replace_subgraph=_accept)),
    "no such notation": ("set-up", faulty((["Relu 0->1"], []))),
}


@pytest.mark.parametrize(("identifier", "cls"), FAULTS.values(), ids=FAULTS)
def test_a_planted_fault_is_found(identifier: str, cls: type[AbstractTransformation]) -> None:
    result = check_transformation(cls, graphs=25)
    found = {finding.partition(":")[0]: finding for finding in result.findings}
    assert identifier in found, str(result)
    # Small enough to see the fault: an occurrence and the nodes involved.
    assert found[identifier].count(" (") <= 6, found[identifier]
    with pytest.raises(SelfCheckError, match=identifier):
        result.raise_if_failed()


@pytest.mark.parametrize("cls", [Sound, *(row.cls for row in rows().values() if row.is_own)])
def test_sound_transformations_pass_and_leave_the_generator_alone(cls: type[AbstractTransformation]) -> None:
    np.random.seed(7)
    expected = np.random.rand()
    np.random.seed(7)
    result = check_transformation(cls, graphs=8)
    assert np.random.rand() == expected
    assert result.passed, str(result)
    assert result.accepted + result.refused > 0
    result.raise_if_failed()


def test_few_graphs_are_enough_to_see_a_callback_that_always_raises() -> None:
    cls = FAULTS["number for text"][1]
    assert "always raises" in check_transformation(cls, graphs=20).findings[0]
    with pytest.raises(ValueError, match="0 or more, not -1"):
        check_transformation(cls, graphs=-1)
