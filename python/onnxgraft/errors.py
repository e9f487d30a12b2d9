"""The errors that the host tool raises for problems that a user can fix. Each message is one line."""

from __future__ import annotations

from collections.abc import Sequence


class HostError(Exception):
    """Base of all these errors."""


class ModelFileError(HostError):
    """A model, its external data or an output place that cannot be used."""


class ReportError(HostError):
    """A text that is not a report of this release."""


class RegistrationError(HostError):
    """A class that cannot be a transformation of the catalogue, or user code that cannot be loaded."""


class WrongUsageError(HostError):
    """Arguments that make no sense together or alone; nothing was done."""


class UnknownNameError(WrongUsageError):
    """A name that does not exist."""


class UnknownTransformationError(UnknownNameError):
    """A short name that no transformation has."""

    def __init__(self, name: str, similar: Sequence[str]) -> None:
        hint = f"did you mean {' or '.join(similar)}?" if similar else "`onnxgraft list` shows the names"
        super().__init__(f"unknown transformation '{name}': {hint}")


class PreparationError(UnknownNameError):
    """A step name that no step has."""

    def __init__(self, name: str, similar: Sequence[str], known: Sequence[str]) -> None:
        hint = f"did you mean {' or '.join(similar)}?" if similar else f"the steps are {', '.join(known)}"
        super().__init__(f"unknown preparation step '{name}': {hint}")


class RecipeFileError(HostError):
    """A recipe file that cannot be read, or that contains something that is not a recipe."""


class UnknownRecipeError(UnknownNameError):
    """A name that no recipe has."""

    def __init__(self, name: str, similar: Sequence[str], known: Sequence[str]) -> None:
        hint = f"did you mean {' or '.join(similar)}?" if similar else f"the recipes are {', '.join(known)}"
        super().__init__(f"unknown recipe '{name}': {hint}")


class EvaluationError(HostError):
    """A model that cannot be lowered or computed; the message names the node."""


class DataError(HostError):
    """Samples that cannot be read or do not fit the inputs of the model; the message names sample and problem."""


class CalibrationError(HostError):
    """Ranges that cannot be collected, read or used for a model; the message says what would be right."""


class VerificationError(HostError):
    """No input can be made for a model, or a wrong argument; the message names the input and what would be right."""
