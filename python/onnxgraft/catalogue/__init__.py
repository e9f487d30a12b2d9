"""The transformations that can be run: the built-in ones and those that a user registers or loads."""

from onnxgraft.catalogue.registry import (
    ENTRY_POINT_GROUP,
    Pair,
    Transformation,
    find_row,
    load_user_code,
    register,
    rows,
    transformations,
)

__all__ = [
    "ENTRY_POINT_GROUP",
    "Pair",
    "Transformation",
    "find_row",
    "load_user_code",
    "register",
    "rows",
    "transformations",
]
