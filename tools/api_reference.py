"""Writes docs/reference/api.md: the public functions, classes and errors, from their signatures and docstrings.

python -m tools.api_reference [--check]
"""

from __future__ import annotations

import dataclasses
import importlib
import inspect
import sys
from collections.abc import Iterator
from pathlib import Path
from typing import Any

import onnxgraft
from tools import reference_page
from tools.docstrings import render
from tools.field_texts import field_texts

PAGE = Path(__file__).resolve().parents[1] / "docs/reference/api.md"
INTRODUCTION = """# API reference

All public functions, classes and errors. `make docs` generates this page from signatures and docstrings. Most programs
need only the first sections: `rewrite`, `find`, `explain`, `verify`, `diff`. Names listed under `onnxgraft` are used as
in `onnxgraft.rewrite(...)`; others are imported from the module that the section names.
[The transformations](transformations/README.md) have their own pages; their classes are in `onnxgraft.quant`.
"""

ERRORS = """## Errors

In `onnxgraft`. Each message is one line that says what was wrong and what would be right.

| Error | Is a | Means |
|---|---|---|"""

# Heading, module, names; a name with a dot is a method that is shown too.
SECTIONS: tuple[tuple[str, str, tuple[str, ...]], ...] = (
    ("Rewriting", "onnxgraft", ("rewrite", "prepare", "transformations", "register", "recipes")),
    (
        "Looking without rewriting",
        "onnxgraft",
        ("find", "explain", "pattern_of", "check_transformation", "check_rule", "inspect"),
    ),
    ("Rules", "onnxgraft", ("load_rule_file", "load_rules", "Rule")),
    ("Comparing models", "onnxgraft", ("verify", "diff")),
    ("Calibrating", "onnxgraft", ("calibrate", "Calibration", "Calibration.merge", "Calibration.to_json")),
    (
        "Calibrating, in detail",
        "onnxgraft.calibration",
        ("read_calibration", "merged", "model_fingerprint", "Range", "Equalized", "WeightNumbers"),
    ),
    ("Filling", "onnxgraft.filling", ("Filling", "FillingResult", "FilledOperator", "LeftFloat")),
    (
        "Models that another tool has quantized",
        "onnxgraft.quantized_models",
        ("is_quantized", "read_quantized", "calibration_for"),
    ),
    ("Data", "onnxgraft.samples", ("open_data", "Images")),
    ("Reports", "onnxgraft.engine", ("Report", "Report.to_json", "Report.from_json", "Step", "PatternResult")),
    ("Reports, in detail", "onnxgraft.engine", ("Occurrence", "NodeText", "PreparationStep")),
    ("Recipes", "onnxgraft.recipe_book", ("Recipe", "find_recipe", "load_recipes")),
    ("Results of looking", "onnxgraft.matching", ("Match", "Explanation", "PatternText")),
    ("Results of inspect", "onnxgraft.inspection", ("Inspection", "RecipeScore")),
    ("Results of explain for nodes", "onnxgraft.explaining", ("NodeExplanation", "NodeAnswer")),
    ("Results of the self-test", "onnxgraft.selfcheck", ("CheckResult", "CheckResult.raise_if_failed")),
    ("Results of verify", "onnxgraft.verification", ("Verification", "OutputRow")),
    ("Accuracy", "onnxgraft.verification", ("measure", "Accuracy")),
    (
        "Accuracy, in detail",
        "onnxgraft.verification.accuracy",
        ("TensorAccuracy", "QuantizeNumbers", "SumNumbers", "Sensitivity"),
    ),
    ("Results of diff", "onnxgraft.comparison", ("GraphDiff", "Region", "NodeChange", "ValueChange")),
    (
        "Model files",
        "onnxgraft.io.model_files",
        ("load", "ModelOutput", "ModelOutput.weights_for", "ModelOutput.save", "SavedModel"),
    ),
    ("Weights as they are made", "onnxgraft.engine", ("WeightStore", "WeightStore.store")),
    (
        "Evaluating quantized models",
        "onnxgraft.evaluation",
        ("evaluate", "answer", "lower", "lower_to_qdq", "Convention", "ForwardRunner", "ForwardRunner.run"),
    ),
    (
        "After each transformation",
        "onnxgraft.following",
        (
            "Follower",
            "Follower.wants",
            "Follower.follow",
            "DoneStep",
            "DoneStep.splices_of",
            "DoneStep.old_initializer",
            "Splice",
            "Host",
        ),
    ),
    (
        "Base class of transformations",
        "onnxgraft.abstract_transformation",
        (
            "AbstractTransformation",
            "AbstractTransformation._replace_all_isomorphic_sub_graphs",
            "AbstractTransformation._on_replace_subgraph",
            "find_occurrences",
            "nearest_miss",
            "trace_nodes",
        ),
    ),
    ("Values of initializers", "onnxgraft.transform_utilities", ("get_init", "external_data_folder")),
)


def page() -> str:
    """The whole page.

    Raises:
        ValueError: A public name of the package is missing from all sections.
    """
    shown = {name for _, _, names in SECTIONS for name in names}
    if missing := sorted(name for name in set(onnxgraft.__all__) - shown if not name.endswith("Error")):
        raise ValueError(f"no section of tools/api_reference.py has {', '.join(missing)}")
    parts = [INTRODUCTION]
    for heading, module_name, names in SECTIONS:
        parts.append(f"## {heading}\n\nIn `{module_name}`.\n")
        module = importlib.import_module(module_name)
        parts += ["\n".join(_entry(module, name)) for name in names]
    parts.append(ERRORS)
    for name in sorted(name for name in onnxgraft.__all__ if name.endswith("Error")):
        error = getattr(onnxgraft, name)
        about = " ".join(line for line in render(inspect.getdoc(error) or "") if line)
        parts.append(f"| `{name}` | `{error.__bases__[0].__name__}` | {about} |")
    return "\n".join(parts) + "\n"


def _entry(module: Any, name: str) -> Iterator[str]:
    item = module
    for part in name.split("."):
        item = inspect.getattr_static(item, part) if inspect.isclass(item) else getattr(item, part)
    item = getattr(item, "__func__", item)  # a class method
    yield f"### `{name}`\n"
    yield f"```text\n{_signature(name, item)}\n```\n"
    yield from render(inspect.getdoc(item) or "")
    if inspect.isclass(item) and dataclasses.is_dataclass(item):
        yield from _fields(item)
        yield ""


def _fields(item: Any) -> Iterator[str]:
    """A table of the fields, with meanings unless the docstring has listed them."""
    texts = {} if "Attributes:" in (inspect.getdoc(item) or "") else field_texts(item)
    explained = any(texts.values())
    yield "| Field | Type | Meaning |\n|---|---|---|" if explained else "| Field | Type |\n|---|---|"
    for field in dataclasses.fields(item):
        cells = [f"`{field.name}`", f"`{field.type}`", *([texts[field.name]] if explained else [])]
        yield f"| {' | '.join(cell.replace('|', chr(92) + '|') for cell in cells)} |"


def _signature(name: str, item: Any) -> str:
    label = name if inspect.isclass(item) or "." not in name else name.rpartition(".")[2]
    if inspect.isclass(item) and (dataclasses.is_dataclass(item) or getattr(item, "_is_protocol", False)):
        return f"class {label}"
    signature = inspect.signature(item)
    stub = not hasattr(inspect.unwrap(item), "__code__") and not inspect.isclass(item)
    taken = [one for one in signature.parameters.values() if one.name not in ("self", "cls")]
    # The first argument of a transformation's check is a class, too.
    taken = taken if "." in name or inspect.isclass(item) else list(signature.parameters.values())
    parameters = [_parameter(one, stub) for one in taken]
    for index, one in enumerate(taken):
        if one.kind is one.KEYWORD_ONLY:
            parameters.insert(index, "*")
            break
    given = "" if stub or signature.return_annotation in (signature.empty, None, "None") else " -> "
    returns = given and given + _annotation(signature.return_annotation)
    text = f"{label}({', '.join(parameters)}){returns}"
    if len(text) > 110:
        text = f"{label}(\n    " + ",\n    ".join(parameters) + f",\n){returns}"
    return f"class {text}" if inspect.isclass(item) else text


def _parameter(one: inspect.Parameter, stub: bool) -> str:
    text = one.name
    if one.kind in (one.VAR_POSITIONAL, one.VAR_KEYWORD):
        text = ("*" if one.kind is one.VAR_POSITIONAL else "**") + text
    typed = not stub and one.annotation is not one.empty
    if typed:
        text += f": {_annotation(one.annotation)}"
    if one.default is not one.empty:
        text += f" = {one.default!r}" if typed else f"={one.default!r}"
    return text


def _annotation(annotation: Any) -> str:
    return annotation if isinstance(annotation, str) else str(getattr(annotation, "__name__", annotation))


if __name__ == "__main__":
    sys.exit(reference_page.run("api_reference", PAGE, page))
