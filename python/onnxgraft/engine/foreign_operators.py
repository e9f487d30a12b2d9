"""Warns of operators that patterns treat as standard ones, because they have the name of one.

Patterns name operators without a domain, so that they find quantize nodes of any domain.
"""

from __future__ import annotations

from collections import Counter
from collections.abc import Iterable, Iterator

import onnx

from onnxgraft.report.records import Step

_STANDARD = ("", "ai.onnx")


class ForeignOperators:
    """The nodes of a graph that have the name of a standard operator and are another one.

    Args:
        graph: The graph, before the run.
        functions: The functions of its model.
    """

    def __init__(self, graph: onnx.GraphProto, functions: Iterable[onnx.FunctionProto]) -> None:
        local = {function.name for function in functions if function.domain in _STANDARD}
        found = ((node.domain, node.op_type) for node in graph.node if node.domain not in _STANDARD or local)
        self._count = Counter(
            (domain, name)
            for domain, name in found
            if onnx.defs.has(name) and (domain not in _STANDARD or name in local)
        )

    def warnings(self, steps: Iterable[Step]) -> Iterator[str]:
        """One line for each operator that a pattern named."""
        patterns = {pattern.pattern for step in steps for pattern in step.patterns}
        named = {text.partition(":")[0] for pattern in patterns for text in pattern}
        for (domain, name), count in self._count.items():
            if name in named:
                what = f"a function of the model called {name}" if domain in _STANDARD else f"{domain}::{name}"
                nodes = "1 node is" if count == 1 else f"{count} nodes are"
                yield f"{nodes} of {what}, which patterns treat as the standard {name}"
