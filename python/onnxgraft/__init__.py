"""Graph rewriting for quantized ONNX networks.

The classes are in three extension modules: `onnxgraft.quant` (the transformations), `onnxgraft.abstract_transformation`
(the base class with the matcher) and `onnxgraft.transform_utilities` (look-up of initializers). Around them is the host
tool, whose command line is `onnxgraft` and whose functions are the names of this package:

    model = onnx.load("model.onnx")
    report = onnxgraft.rewrite(model, ["quant_conv", "replace_quant"], seed=0)
    print(report)

Each name is loaded when it is first used, so that importing the package costs nothing.
"""

from __future__ import annotations

import importlib
import importlib.metadata
import logging
from typing import TYPE_CHECKING, Any

if TYPE_CHECKING:
    from onnxgraft.calibration import Calibration, calibrate
    from onnxgraft.catalogue import load_rule_file, register, transformations
    from onnxgraft.comparison import diff
    from onnxgraft.engine import Report, TransformationError, rewrite
    from onnxgraft.errors import (
        CalibrationError,
        DataError,
        HostError,
        ModelFileError,
        RegistrationError,
        ReportError,
        UnknownNameError,
        UnknownTransformationError,
        WrongUsageError,
    )
    from onnxgraft.explaining import explain
    from onnxgraft.inspection import Inspection, inspect
    from onnxgraft.matching import PatternText, find, pattern_of
    from onnxgraft.preparation import PreparationError, prepare
    from onnxgraft.recipe_book import Recipe, RecipeFileError, UnknownRecipeError, recipes
    from onnxgraft.rules import Rule, RuleFileError, load_rules
    from onnxgraft.selfcheck import check_rule, check_transformation
    from onnxgraft.verification import verify

__all__ = [
    "Calibration",
    "CalibrationError",
    "DataError",
    "HostError",
    "Inspection",
    "ModelFileError",
    "PatternText",
    "PreparationError",
    "Recipe",
    "RecipeFileError",
    "RegistrationError",
    "Report",
    "ReportError",
    "Rule",
    "RuleFileError",
    "TransformationError",
    "UnknownNameError",
    "UnknownRecipeError",
    "UnknownTransformationError",
    "WrongUsageError",
    "calibrate",
    "check_rule",
    "check_transformation",
    "diff",
    "explain",
    "find",
    "inspect",
    "load_rule_file",
    "load_rules",
    "pattern_of",
    "prepare",
    "recipes",
    "register",
    "rewrite",
    "transformations",
    "verify",
]

# The module that defines each name.
_HOMES = {
    "calibration": ("Calibration", "calibrate"),
    "catalogue": ("load_rule_file", "register", "transformations"),
    "comparison": ("diff",),
    "engine": ("Report", "TransformationError", "rewrite"),
    "errors": (
        "CalibrationError",
        "DataError",
        "HostError",
        "ModelFileError",
        "RegistrationError",
        "ReportError",
        "UnknownNameError",
        "UnknownTransformationError",
        "WrongUsageError",
    ),
    "explaining": ("explain",),
    "inspection": ("Inspection", "inspect"),
    "matching": ("PatternText", "find", "pattern_of"),
    "preparation": ("PreparationError", "prepare"),
    "recipe_book": ("Recipe", "RecipeFileError", "UnknownRecipeError", "recipes"),
    "rules": ("Rule", "RuleFileError", "load_rules"),
    "selfcheck": ("check_rule", "check_transformation"),
    "verification": ("verify",),
}
# Without this handler Python prints warnings to stderr if a program has not configured logging.
logging.getLogger(__name__).addHandler(logging.NullHandler())

_HOME_OF = {name: home for home, names in _HOMES.items() for name in names}


def __getattr__(name: str) -> Any:
    if name == "__version__":
        return importlib.metadata.version("onnx-graft")
    if name not in _HOME_OF:
        raise AttributeError(f"module {__name__!r} has no attribute {name!r}")
    value = getattr(importlib.import_module(f"{__name__}.{_HOME_OF[name]}"), name)
    globals()[name] = value
    return value


def __dir__() -> list[str]:
    return sorted({*globals(), *__all__})
