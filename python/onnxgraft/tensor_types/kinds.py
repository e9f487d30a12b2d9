"""The known facts of one tensor: its element type and, if known, its shape."""

from __future__ import annotations

import functools
from dataclasses import dataclass

import onnx
from onnx import TensorProto, TypeProto, ValueInfoProto

FLOATING = frozenset((TensorProto.FLOAT, TensorProto.FLOAT16, TensorProto.BFLOAT16, TensorProto.DOUBLE))


@dataclass(frozen=True)
class Kind:
    """Element type, and the size of each axis: a number, the name of a symbolic one, or "" for an unknown one.

    `dims` is None if not even the rank is known.
    """

    element_type: int
    dims: tuple[int | str, ...] | None = None

    @classmethod
    def of(cls, type_: TypeProto) -> Kind | None:
        """The kind that a declaration states; None if it is not that of a tensor, or states no element type."""
        return _read(type_.SerializeToString())

    @property
    def channels(self) -> int | None:
        """The size of axis 1, if it is known."""
        if self.dims is None or len(self.dims) < 2 or isinstance(self.dims[1], str):
            return None
        return self.dims[1]

    def declare(self, name: str) -> ValueInfoProto:
        """The entry of a tensor of this kind."""
        return ValueInfoProto(name=name, type=_type(self))

    @property
    def sizes(self) -> list[int | str | None] | None:
        """The dims in the form of onnx's helpers."""
        return None if self.dims is None else [None if size == "" else size for size in self.dims]


@functools.lru_cache(maxsize=1024)
def _read(content: bytes) -> Kind | None:
    type_ = TypeProto.FromString(content)
    tensor = type_.tensor_type
    if not type_.HasField("tensor_type") or not tensor.elem_type:
        return None
    if not tensor.HasField("shape"):
        return Kind(tensor.elem_type)
    return Kind(tensor.elem_type, tuple(map(_size, tensor.shape.dim)))


@functools.lru_cache(maxsize=1024)
def _type(kind: Kind) -> TypeProto:
    """The type of a declaration, to be copied; a graph has few different ones."""
    made: TypeProto = onnx.helper.make_tensor_type_proto(kind.element_type, kind.sizes)
    return made


def _size(size: onnx.TensorShapeProto.Dimension) -> int | str:
    # Negative sizes are wrong, and onnx's inference functions crash on them.
    if size.HasField("dim_value"):
        return size.dim_value if size.dim_value >= 0 else ""
    return size.dim_param
