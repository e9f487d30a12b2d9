"""Fixtures that several test files use."""

from __future__ import annotations

from pathlib import Path

import pytest

REPOSITORY = Path(__file__).resolve().parents[2]


@pytest.fixture(scope="session")
def repository() -> Path:
    """The root of the source tree."""
    return REPOSITORY


@pytest.fixture(scope="session")
def example_models(repository: Path) -> list[Path]:
    """The exported models that ship with the project."""
    return sorted((repository / "examples/models").glob("*.onnx"))
