"""Every class with graphs around its patterns: many occurrences; some are refused, some raise an error."""

import inspect
import random
from collections.abc import Iterator
from typing import Any

import numpy as np
from onnx import GraphProto

from helpers.furnished import furnished_graph
from onnxgraft import quant


def _classes() -> Iterator[Any]:
    for _, cls in inspect.getmembers(quant, inspect.isclass):
        if hasattr(cls, "get_simple_name") and hasattr(cls, "apply") and not inspect.isabstract(cls):
            yield cls


CLASSES: dict[str, Any] = {cls().get_simple_name(): cls for cls in _classes()}


def patterns(name: str) -> list[list[str]]:
    """The pattern lists of the class."""
    lists = inspect.getmembers(CLASSES[name])
    return [value for key, value in lists if key.startswith("subgraph") and "_rep" not in key]


def class_graph(name: str, seed: int) -> GraphProto:
    """The same graph for the same seed."""
    rng = random.Random(f"{name} {seed}")
    return furnished_graph(rng, rng.choice(patterns(name)), products=name.endswith("v10"))


def apply(transformation: Any, graph: Any) -> int | Exception:
    """The result of `apply` of an object or of the class of that name.

    A number, or the error if initializers or attributes are not as the class needs them.
    """
    np.random.seed(7)
    with np.errstate(all="ignore"):
        try:
            made = CLASSES[transformation]() if isinstance(transformation, str) else transformation
            return made.apply(graph)  # type: ignore[no-any-return]
        except Exception as error:
            return error.with_traceback(None)
