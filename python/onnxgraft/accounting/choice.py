"""Which operators the user wants quantized: by globs over node names, `op:` operators and `input:` tensors."""

from __future__ import annotations

import difflib
from collections.abc import Iterable, Iterator, Sequence
from contextlib import contextmanager
from fnmatch import fnmatchcase
from types import MethodType
from typing import Any

from onnx import GraphProto, NodeProto

from onnxgraft.accounting.quantizers import is_quantizing
from onnxgraft.catalogue import CALLBACK, Transformation, intercepted
from onnxgraft.errors import UnknownNameError

EXCLUDED = "excluded"


class Choice:
    """The operators that no quantizing transformation may touch in a run.

    Args:
        graph: The graph, before the run.
        exclude: Globs of operators that stay as they are.
        only: Globs of the operators that may be quantized, if not all.

    Raises:
        UnknownNameError: A glob matches no node; the message names similar ones.
    """

    def __init__(self, graph: GraphProto, exclude: Iterable[str] = (), only: Iterable[str] = ()) -> None:
        left_out, wanted = list(exclude), list(only)
        nodes = list(graph.node)
        out = _met(nodes, left_out)
        if wanted:
            into = _met(nodes, wanted)
            out |= {index for index in range(len(nodes)) if index not in into}
        self._outputs = {name for index in out for name in nodes[index].output if name}

    def leaves_out(self, node: NodeProto) -> bool:
        """Whether a node must stay as it is."""
        return any(name in self._outputs for name in node.output)

    @contextmanager
    def watch(self, row: Transformation, transformation: Any) -> Iterator[None]:
        """Refuses occurrences with an excluded operator inside the `with` block."""
        if not self._outputs or not is_quantizing(row):
            yield
            return
        original = getattr(transformation, CALLBACK)

        # The parameters have the names of the replaced method.
        def on_replace(_self: Any, graph: Any, replaced_nodes: Any, *rest: Any, **named: Any) -> Any:
            if any(map(self.leaves_out, replaced_nodes)):
                named.get("refusal_reasons", []).append(EXCLUDED)
                return False
            return original(graph, replaced_nodes, *rest, **named)

        with intercepted(transformation, {CALLBACK: MethodType(on_replace, transformation)}):
            yield


def _met(nodes: Sequence[NodeProto], globs: Iterable[str]) -> set[int]:
    found: set[int] = set()
    for glob in globs:
        kind, _, rest = glob.partition(":")
        names = {"op": _operator, "input": _inputs}.get(kind if rest else "", _name)
        pattern = rest if names is not _name else glob
        met = {index for index, node in enumerate(nodes) if any(fnmatchcase(name, pattern) for name in names(node))}
        if not met:
            known = list(dict.fromkeys(name for node in nodes for name in names(node) if name))
            similar = difflib.get_close_matches(pattern.strip("*"), known, n=3, cutoff=0.5)
            hint = f"did you mean {' or '.join(similar)}?" if similar else f"there are {', '.join(known[:3])} ..."
            raise UnknownNameError(f"'{glob}' matches no node of the prepared model; {hint}")
        found |= met
    return found


def _name(node: NodeProto) -> list[str]:
    """A node without a name goes by its output."""
    return [node.name] if node.name else list(node.output)


def _operator(node: NodeProto) -> list[str]:
    return [node.op_type]


def _inputs(node: NodeProto) -> list[str]:
    return list(node.input)
