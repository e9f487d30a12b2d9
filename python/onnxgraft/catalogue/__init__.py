"""The transformations that can be run: the built-in ones and those that a user registers or loads."""

from onnxgraft.catalogue.interception import CALLBACK, REPLACE, Pair, intercepted, pairs_of
from onnxgraft.catalogue.registry import (
    ENTRY_POINT_GROUP,
    Transformation,
    find_row,
    load_rule_file,
    load_user_code,
    register,
    rows,
    short_names,
    transformations,
)

__all__ = [
    "CALLBACK",
    "ENTRY_POINT_GROUP",
    "REPLACE",
    "Pair",
    "Transformation",
    "find_row",
    "intercepted",
    "load_rule_file",
    "load_user_code",
    "pairs_of",
    "register",
    "rows",
    "short_names",
    "transformations",
]
