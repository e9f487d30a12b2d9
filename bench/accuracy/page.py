"""Writes docs/accuracy.md."""
from typing import Any
def write(results: dict[str, Any]) -> None:
    """Later."""
