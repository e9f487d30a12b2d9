"""`--interactive`: shows each occurrence and asks whether to replace it."""

from __future__ import annotations

import sys
import types
from collections.abc import Iterable, Sequence
from typing import Any

from onnx import GraphProto, NodeProto

from onnxgraft.catalogue import Transformation, find_row
from onnxgraft.cli import consoles
from onnxgraft.drawing.terminal import draw_pair

_QUESTION = "replace? [y]es, [n]o, [a]ll from here on, [q]uit replacing: "
_DECLINED = "declined by the user"


class _Asker:
    """Asks, until the answer holds for all that follow."""

    def __init__(self) -> None:
        self._settled: bool | None = None

    def accepts(self, text: str) -> bool:
        if self._settled is not None:
            return self._settled
        consoles.say(text)
        while True:
            print(_QUESTION, end="", file=sys.stderr, flush=True)
            line = sys.stdin.readline()
            answer = line.strip().lower()[:1] if line else "q"  # the end of the input means no further replacement
            if answer in ("a", "q"):
                self._settled = answer == "a"
            if answer in ("y", "a"):
                return True
            if answer in ("n", "q"):
                return False


def asking(selection: str | Transformation | Iterable[str | Transformation]) -> list[type[Any]]:
    """The classes of transformations, each modified to ask before it replaces an occurrence."""
    chosen = [selection] if isinstance(selection, str | Transformation) else list(selection)
    asker = _Asker()
    return [_asking(find_row(one).cls if isinstance(one, str) else one.cls, asker) for one in chosen]


def _asking(cls: type[Any], asker: _Asker) -> type[Any]:
    """A subclass that asks first and then lets the class decide."""
    current: list[tuple[Sequence[str], Sequence[str]]] = []

    def replace_all(self: Any, graph: GraphProto, pattern: Any, replacement: Any, *rest: Any, **named: Any) -> int:
        current[:] = [(pattern, replacement)]
        return int(cls._replace_all_isomorphic_sub_graphs(self, graph, pattern, replacement, *rest, **named))

    def on_replace(self: Any, graph: GraphProto, nodes: list[NodeProto], places: Any, links: Any, **named: Any) -> bool:
        if not asker.accepts(_text(*current[0], nodes, links)):
            if "refusal_reasons" in named:
                named["refusal_reasons"].append(_DECLINED)
            return False
        return bool(cls._on_replace_subgraph(self, graph, nodes, places, links, **named))

    members = {
        "_replace_all_isomorphic_sub_graphs": replace_all,
        "_on_replace_subgraph": on_replace,
        "__doc__": cls.__doc__,
        "__module__": cls.__module__,
        "__qualname__": cls.__qualname__,
    }
    return types.new_class(cls.__name__, (cls,), exec_body=lambda namespace: namespace.update(members))


def _text(pattern: Sequence[str], replacement: Sequence[str], nodes: Sequence[NodeProto], links: dict[str, str]) -> str:
    """The two drawings, then the nodes and tensors in the graph."""
    found = [f"#{number} {node.op_type} {node.name!r}" for number, node in enumerate(nodes)]
    tensors = [f"{tensor} {name!r}" for tensor, name in links.items()]
    return "\n".join(
        [draw_pair(pattern, replacement), "", "nodes: " + ", ".join(found), "tensors: " + ", ".join(tensors)]
    )
