"""`onnxgraft check`: rules and transformations on random graphs, and their numbers."""

from __future__ import annotations

import argparse
from pathlib import Path

import onnx
from onnx import helper

from onnxgraft import catalogue
from onnxgraft.cli import consoles
from onnxgraft.errors import ModelFileError, UnknownNameError, WrongUsageError
from onnxgraft.rules import RuleTransformation
from onnxgraft.selfcheck import CheckResult, check_rule, check_transformation

FAULT = 3


def run(options: argparse.Namespace) -> int:
    """Checks each rule or class of the file and prints the findings."""
    is_rule_file = Path(options.file).suffix.lower() == ".toml"
    load = catalogue.load_rule_file if is_rule_file else catalogue.load_user_code
    names = load(options.file)
    if not names:
        raise WrongUsageError(f"'{options.file}' registers no transformation: call `onnxgraft.register` on its classes")
    for name in options.only:
        if name not in names:
            raise UnknownNameError(f"'{options.file}' has no '{name}'; it has {', '.join(names)}")
    code = 0
    for name in options.only or names:
        cls = catalogue.find_row(name).cls
        if issubclass(cls, RuleTransformation):
            result = check_rule(cls.rule, graphs=options.graphs, seed=options.seed)
        else:
            result = check_transformation(cls, graphs=options.graphs, seed=options.seed)
        consoles.tell(str(result))
        if options.counterexamples is not None:
            _write(result, options.counterexamples)
        code = code if result.passed else FAULT
    return code


def _write(result: CheckResult, folder: Path) -> None:
    for number, graph in enumerate(result.counterexamples):
        if graph is not None:
            path = folder / f"{result.name}_{number}.onnx"
            try:
                folder.mkdir(parents=True, exist_ok=True)
                opsets = [helper.make_opsetid("", 17)]
                onnx.save(helper.make_model(graph, opset_imports=opsets, ir_version=8), path)
            except OSError as error:
                raise ModelFileError(f"cannot write '{path}': {error.strerror}") from error
            consoles.say(f"wrote {path}")
