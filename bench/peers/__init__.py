"""The same rewrites by other tools. Each is loaded on demand; one that is not installed is left out."""

from __future__ import annotations

from collections.abc import Callable
from dataclasses import dataclass
from importlib import import_module
from typing import Any

import onnx


@dataclass(frozen=True)
class Peer:
    """A tool with its path from a model to a model; `load` and `store` do nothing if it works on protobuf itself."""

    name: str
    rewrite: Callable[[Any], object]
    load: Callable[[onnx.ModelProto], Any] = lambda model: model
    store: Callable[[Any], onnx.ModelProto] = lambda model: model


@dataclass(frozen=True)
class Row:
    """Where a peer is defined, which package it needs, and up to how many occurrences it is measured."""

    name: str
    module: str
    distribution: str | None = None
    largest: int = 100_000

    def peer(self) -> Peer:
        """Imports it; ImportError if its package is missing."""
        found = import_module(f"bench.peers.{self.module}").PEER
        assert isinstance(found, Peer)
        return found


# Above `largest`, one run takes longer than about twenty seconds.
QUANTIZING = [
    Row("plain Python", "plain_python"),
    Row("onnx-graphsurgeon", "graph_surgeon", "onnx-graphsurgeon", 10_000),
    Row("onnxscript rewriter", "onnxscript_rules", "onnxscript", 10_000),
    Row("onnxruntime fusion helper", "fusion_helper", "onnxruntime", 1_000),
]
PACKAGES = [row.distribution for row in QUANTIZING if row.distribution]
