"""No entry of the three modules loses a reference or memory, whether it succeeds, refuses or raises."""

import contextlib
import copy
import gc
import inspect
import pickle
import sys
from collections.abc import Callable
from typing import Any

import numpy as np
import pytest
from onnx import GraphProto, numpy_helper

from helpers.classes import CLASSES, apply, class_graph
from helpers.failing import Uses
from helpers.small_graphs import SWAP, conv_relus
from onnxgraft import quant
from onnxgraft.abstract_transformation import AbstractTransformation, find_occurrences, nearest_miss, trace_nodes
from onnxgraft.transform_utilities import external_data_folder, get_init

REPEATS = 25
# Not tracked by the garbage collector, but easily lost.
PLAIN = (None, True, False, "", b"", 0.0, *range(-1, 10), "node", "name", "input", "FLOAT")


def counts() -> tuple[int, int]:
    """References to all long-lived objects, and blocks of memory."""
    gc.collect()
    references = map(sys.getrefcount, (*gc.get_objects(), *PLAIN))
    # Immortal objects have huge counts, which older binaries change arbitrarily.
    return sum(count for count in references if count < 1 << 28), sys.getallocatedblocks()


def _growth(act: Callable[[], object]) -> float:
    start = counts()
    for _ in range(REPEATS):
        act()
    middle = counts()
    for _ in range(2 * REPEATS):
        act()
    end = counts()
    # One-time effects, such as a cache that fills, are in both; effects of each call are twice in the second.
    return max((end[k] - middle[k]) - (middle[k] - start[k]) for k in (0, 1)) / REPEATS


def leaks(act: Callable[[], object]) -> list[float]:
    """What each call leaves behind, in six measurements; empty if one of them found nothing.

    Other activity in the process cannot hide a leak of each call, but can look like one a few times.
    """
    for _ in range(REPEATS):
        act()
    found: list[float] = []
    while len(found) < 6:
        found.append(_growth(act))
        if found[-1] <= 0.9:
            return []
    return found


class Base(AbstractTransformation):
    """Does `act(graph)` in its callback."""

    def __init__(self, act: Callable[[GraphProto], object]) -> None:
        self.act = act

    def _on_replace_subgraph(self, graph: GraphProto, *_: Any, **__: Any) -> Any:
        return self.act(graph)


def replacing(act: Callable[[GraphProto], object], pair: Any = SWAP, **extra: Any) -> Callable[[], object]:
    return lambda: Base(act)._replace_all_isomorphic_sub_graphs(conv_relus(), *pair, **extra)


def spoil(graph: GraphProto) -> None:
    del graph.node[:]


def folders() -> None:
    with external_data_folder("."), external_data_folder(".."):
        repr(external_data_folder("x"))


def read(*names: Any) -> Callable[[], object]:
    long = conv_relus()
    long.initializer.extend(numpy_helper.from_array(np.zeros(1), f"i{k}") for k in range(40))
    return lambda: get_init(long, names)


# Also called with wrong arguments.
find: Any = find_occurrences
folder: Any = external_data_folder
method: Any = quant.QuantConvTransformation._on_replace_subgraph
base: Any = quant._QuantTransformation()
ENTRIES: dict[str, Callable[[], object]] = {
    "accepts": replacing(lambda graph: True),
    "refuses": replacing(lambda graph: False),
    "raises": replacing(lambda graph: 1 / 0),
    "spoils the graph": replacing(spoil),
    "adds and refuses": replacing(lambda graph: bool(graph.node.add(op_type="Abs", output=["z"]))),
    "odd truth": replacing(lambda graph: np.zeros(2)),
    "extra keywords": replacing(lambda graph: True, shared=[1], other={}),
    "wrong list": replacing(lambda graph: True, ("Conv:0->1", [])),
    "wrong notation": replacing(lambda graph: True, (["Conv:0=>1"], [])),
    "no list of nodes": lambda: find(None, *SWAP),
    "default callback": lambda: AbstractTransformation()._replace_all_isomorphic_sub_graphs(conv_relus(), *SWAP),
    "find": lambda: find(conv_relus(), *SWAP),
    "trace": lambda: trace_nodes(conv_relus(), [(["Conv:0,1i->2", "Neg:2->3"], SWAP[1]), SWAP], range(4)),
    "miss": lambda: nearest_miss(conv_relus(), ["Conv:0,1i->2", "Neg:2->3"], SWAP[1]),
    "too few": lambda: find(conv_relus()),
    "unknown keyword": lambda: find(conv_relus(), *SWAP, other=1),
    "twice": lambda: find(conv_relus(), *SWAP, graph=1),
    "look-up": read("w0", "i3"),
    "look-up of nothing": read("w0", "lost"),
    "look-up of one text": lambda: get_init(conv_relus(), "w0"),
    "folders": folders,
    "wrong folder": lambda: folder(3),
    "left twice": lambda: external_data_folder(".").__exit__(None, None, None),
    "reflection": lambda: [getattr(method, a) for a in dir(method) if "subclass" not in a],
    "signature": lambda: str(inspect.signature(method)),
    "attributes": lambda: method.__dict__.update(note=[1]),
    "pickle": lambda: pickle.loads(pickle.dumps(copy.copy(method))),
    "subclass": lambda: type("Own", (quant.QuantConvTransformation,), {})().apply(conv_relus()),
    "abstract": quant.AbstractPullUpTesselQuantTransformation,
    "draw weights": lambda: base._update_weights(conv_relus(), True, ["w0", "n"]),
    "draw bias": lambda: base._update_bias(conv_relus(), ["w0", "n"]),
    "draw scales": lambda: base._update_tesseldequant((4,), "n"),
    "draw nothing": lambda: base._update_weights(conv_relus(), True, ["lost", "n"]),
    "precision": lambda: base._check_current_precision(conv_relus(), {}, "1"),
    "no node": lambda: base._update_tesselquant(conv_relus(), {}, 0),
    "dict": lambda: base._check_current_precision(conv_relus(), 3, "1"),
}


@pytest.mark.parametrize("entry", ENTRIES)
def test_entries(entry: str) -> None:
    def act() -> None:
        with contextlib.suppress(Exception):
            ENTRIES[entry]()

    assert leaks(act) == []


@pytest.mark.parametrize("name", CLASSES)
def test_classes(name: str) -> None:
    graphs = [class_graph(name, seed).SerializeToString() for seed in range(2)]
    turn = 0

    def act() -> None:
        """Alternating: undisturbed, and with a fault somewhere."""
        nonlocal turn
        turn += 1
        uses = Uses(1 + (turn * 97) % 1500 if turn % 2 else 0)
        apply(name, uses.wrap(GraphProto.FromString(graphs[turn // 2 % 2])))
        uses.proxies.clear()

    assert leaks(act) == []
