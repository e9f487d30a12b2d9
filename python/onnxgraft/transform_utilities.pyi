import os
from collections.abc import Iterable
from types import TracebackType
from typing import Any, final

from numpy.typing import NDArray
from onnx import GraphProto, TensorProto

def get_init(graph: GraphProto, names: Iterable[str]) -> tuple[list[NDArray[Any]], list[TensorProto]]: ...

@final
class external_data_folder:  # noqa: N801
    def __new__(cls, path: str | os.PathLike[str]) -> external_data_folder: ...
    def __enter__(self) -> str: ...
    def __exit__(
        self, kind: type[BaseException] | None, error: BaseException | None, trace: TracebackType | None, /
    ) -> None: ...
