"""One of two graphs, prepared for comparison: the content of each node, and the writer of each tensor."""

from __future__ import annotations

import hashlib
from contextlib import suppress
from pathlib import Path

import numpy as np
import onnx
from onnx import numpy_helper

from onnxgraft.errors import ModelFileError
from onnxgraft.io.external_data import DIGEST_SIZE, digest_of_extent, locate
from onnxgraft.report.node_texts import tensor_text

Content = tuple[str, str, bytes]


class Outline:
    """A graph's nodes by content and its initializers by type, shape and digest."""

    def __init__(self, graph: onnx.GraphProto, folder: Path | None = None) -> None:
        self._folder = folder
        self.graph = graph
        self.nodes = list(graph.node)
        self.contents = [_content(node) for node in self.nodes]
        self.tensors = {tensor.name: tensor for tensor in graph.initializer}
        self.sparse = {tensor.values.name: tensor for tensor in graph.sparse_initializer}
        self.inputs = [v.name for v in graph.input if v.name not in self.tensors and v.name not in self.sparse]
        self.constant_nodes = self._take_constant_nodes()
        self.writers = {
            name: index
            for index, node in enumerate(self.nodes)
            if index not in self.constant_nodes
            for name in node.output
            if name
        }
        self._digests: dict[str, str] = {}

    def _take_constant_nodes(self) -> set[int]:
        """`Constant` nodes count as initializers: exporters write either."""
        taken = set()
        for index, node in enumerate(self.nodes):
            if node.op_type == "Constant" and self.contents[index][1] == "" and len(node.attribute) == 1:
                tensor = _value(node.attribute[0])
                if tensor is not None:
                    self.tensors[node.output[0]] = tensor
                    taken.add(index)
        return taken

    def is_constant(self, name: str) -> bool:
        """Whether the tensor is an initializer."""
        return name in self.tensors or name in self.sparse

    def constant_text(self, name: str) -> str | None:
        """Type and shape of an initializer; None if there is none of that name."""
        if name in self.tensors:
            return tensor_text(self.tensors[name])
        return "sparse " + tensor_text(self.sparse[name].values) if name in self.sparse else None

    def digest(self, name: str) -> str:
        """A text that is the same for initializers of the same type, shape and values."""
        if name not in self._digests:
            if name in self.tensors:
                self._digests[name] = self._digest(self.tensors[name])
            else:
                sparse = self.sparse[name]
                both = f"{self._digest(sparse.values)} {self._digest(sparse.indices)}"
                self._digests[name] = f"{both} {list(sparse.dims)}"
        return self._digests[name]

    def _digest(self, tensor: onnx.TensorProto) -> str:
        title = tensor_text(tensor)
        if tensor.data_location != onnx.TensorProto.EXTERNAL:
            return f"{title} {_digest_of_values(tensor)}"
        if self._folder is not None:
            with suppress(ModelFileError):
                return f"{title} {digest_of_extent(locate(tensor, self._folder))}"
        # Its bytes do not exist: the place where they would be identifies it.
        return f"{title} {sorted((e.key, e.value) for e in tensor.external_data if e.key != 'checksum')}"


def _value(attribute: onnx.AttributeProto) -> onnx.TensorProto | None:
    """The tensor that a `Constant` node writes; None for strings and sparse ones."""
    if attribute.type == onnx.AttributeProto.TENSOR:
        return attribute.t
    values = {"value_float": attribute.f, "value_floats": attribute.floats} if "float" in attribute.name else {}
    values |= {"value_int": attribute.i, "value_ints": attribute.ints} if "int" in attribute.name else {}
    if attribute.name not in values:
        return None
    dtype = np.float32 if "float" in attribute.name else np.int64
    return numpy_helper.from_array(np.array(values[attribute.name], dtype))


def _content(node: onnx.NodeProto) -> Content:
    """Operator and attributes, in any order of the latter."""
    parts = sorted(attribute.SerializeToString(deterministic=True) for attribute in node.attribute)
    hashed = hashlib.blake2b(digest_size=16)
    for part in parts:
        hashed.update(len(part).to_bytes(8, "little") + part)
    return node.op_type, "" if node.domain == "ai.onnx" else node.domain, hashed.digest()


def _digest_of_values(tensor: onnx.TensorProto) -> str:
    data = tensor.raw_data
    if not data:
        try:
            data = numpy_helper.to_array(tensor).tobytes()  # the same bytes as raw data would be
        except (TypeError, ValueError):  # strings, or a tensor whose values do not fit its shape
            copy = onnx.TensorProto.FromString(tensor.SerializeToString())
            copy.ClearField("name")
            data = copy.SerializeToString(deterministic=True)
    return hashlib.blake2b(data, digest_size=DIGEST_SIZE).hexdigest()
