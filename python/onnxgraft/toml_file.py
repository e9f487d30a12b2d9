"""Reads a user's TOML file: rules and recipes are tables by name."""

from __future__ import annotations

import importlib
import os
import sys
from collections.abc import Mapping
from pathlib import Path
from typing import Any

from onnxgraft.errors import HostError

_tomllib: Any = importlib.import_module("tomllib" if sys.version_info >= (3, 11) else "tomli")


def read_tables(path: str | os.PathLike[str], error: type[HostError], expected: str, example: str) -> Mapping[str, Any]:
    """The tables of a file.

    Args:
        path: The file.
        error: The error to raise.
        expected: What each table is, such as "rule".
        example: The name of a table, for the message about an empty file.

    Raises:
        HostError: An `error`: the file cannot be read, is not TOML, or is empty.
    """
    file = os.fspath(path)
    try:
        with Path(path).open("rb") as stream:
            tables: Mapping[str, Any] = _tomllib.load(stream)
    except OSError as reason:
        raise error(f"cannot read '{file}': {reason.strerror}") from reason
    except (_tomllib.TOMLDecodeError, UnicodeDecodeError) as reason:
        raise error(f"'{file}' is not TOML: {reason}") from reason
    if not tables:
        raise error(f"'{file}' has no {expected}: write a table such as [{example}]")
    return tables
