"""Fixtures that several test files use."""

import os
from pathlib import Path

import pytest
from hypothesis import HealthCheck, settings

from onnxgraft.catalogue import registry

# The same examples in every run; `make fuzz` uses the other profile.
_COMMON = {"deadline": None, "database": None, "suppress_health_check": list(HealthCheck)}
settings.register_profile("fixed", derandomize=True, max_examples=20, **_COMMON)  # type: ignore[arg-type]
settings.register_profile("long", max_examples=3000, **_COMMON)  # type: ignore[arg-type]
settings.load_profile(os.environ.get("HYPOTHESIS_PROFILE", "fixed"))

REPOSITORY = Path(__file__).resolve().parents[2]


@pytest.fixture(scope="session")
def repository() -> Path:
    """The root of the source tree."""
    return REPOSITORY


@pytest.fixture(scope="session")
def example_models(repository: Path) -> list[Path]:
    """The exported models that ship with the project."""
    return sorted((repository / "examples/models").glob("*.onnx"))


@pytest.fixture
def own_registry(monkeypatch: pytest.MonkeyPatch) -> None:
    """Removes the test's registrations afterwards."""
    registered = dict(registry._registry())
    monkeypatch.setattr(registry, "_registry", lambda: registered)
