"""Which nodes a user means: by name, by a tensor, by a glob over either."""

from __future__ import annotations

import difflib
from collections.abc import Iterable
from fnmatch import fnmatchcase

from onnx import NodeProto

from onnxgraft.errors import UnknownNameError
from onnxgraft.graph.surroundings import Surroundings


def chosen_nodes(around: Surroundings, names: Iterable[str]) -> list[int]:
    """Indices of the nodes that go by one of the names, in graph order.

    A node goes by its name and by its output. A name that is neither may be a tensor that nodes read, such as a weight:
    then these nodes are meant. Globs are tried last, since exporters put brackets into names.

    Raises:
        UnknownNameError: A name matches nothing; the message has similar ones.
    """
    found: set[int] = set()
    for name in names:
        met = _met(around, name)
        if not met:
            known = list(dict.fromkeys(one for node in around.nodes for one in _names(node)))
            similar = difflib.get_close_matches(name.strip("*"), known, n=3, cutoff=0.5)
            hint = f"did you mean {' or '.join(similar)}?" if similar else f"there are {', '.join(known[:3])} ..."
            raise UnknownNameError(f"'{name}' is neither a node nor a tensor of the graph; {hint}")
        found |= met
    return sorted(found)


def _names(node: NodeProto) -> list[str]:
    return [name for name in (node.name, *node.output[:]) if name]


def _met(around: Surroundings, name: str) -> set[int]:
    if not name:
        return set()
    exact = {index for index, node in enumerate(around.nodes) if name in _names(node)}
    if exact := exact or set(around.readers(name)):
        return exact
    return {i for i, node in enumerate(around.nodes) if any(fnmatchcase(one, name) for one in _names(node))}
