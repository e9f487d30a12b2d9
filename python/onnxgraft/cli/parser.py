"""The commands and their options."""

from __future__ import annotations

import argparse
import os
import sys
from collections.abc import Sequence
from importlib.metadata import version
from pathlib import Path

from onnxgraft.cli import completion, data_options, fill_options, options
from onnxgraft.cli.options import Parser, positive_number, whole_number

_DATA_FILE = "A model with weights in a data file gets a new data file next to OUT.onnx."


def parse(arguments: Sequence[str] | None) -> argparse.Namespace:
    """Reads the arguments (those of the process for None); wrong usage ends the process."""
    parser = make_parser()
    if "_ARGCOMPLETE" in os.environ:  # the shell asks for completions
        completion.answer(parser)
    given = list(sys.argv[1:] if arguments is None else arguments)
    run: list[str] = []
    if given[:1] == ["report-bug"] and "--" in given:
        at = given.index("--")
        given, run = given[:at], given[at + 1 :]
    options = parser.parse_args(given)
    if options.command == "report-bug":
        options.run = run[1:] if run[:1] == ["onnxgraft"] else run
    if options.command == "apply" and options.output is None and not options.dry_run:
        options.parser.error("-o/--output, the model to write, or --dry-run is required")
    if getattr(options, "replacement", None) is not None and options.pattern is None:
        options.parser.error("--replacement needs --pattern")
    if options.command == "apply" and options.pattern is not None and options.replacement is None:
        options.parser.error("--pattern needs --replacement; `onnxgraft find` shows where it matches")
    if options.command == "calibrate":
        if options.model is not None and options.float_model is not None:
            options.parser.error("MODEL.onnx and --float are the same: give one of them")
        options.model = options.model or options.float_model
        if options.model is None:
            options.parser.error("MODEL.onnx, the float model, is required")
    if options.command == "apply":
        fill_options.check(options)
    return options


def make_parser() -> argparse.ArgumentParser:
    """Builds the parser; the result's `command` is the name of a command."""
    parser = Parser(prog="onnxgraft", description="Rewrites the graphs of ONNX models for quantized inference.")
    parser.add_argument("--version", action="version", version="%(prog)s " + version("onnx-graft"))
    commands = parser.add_subparsers(dest="command", metavar="COMMAND", required=True)
    common, code, recipes = options.common(), options.user_code(), options.user_recipes()

    def command(name: str, summary: str, *parents: Parser, epilog: str | None = None) -> Parser:
        description = summary[0].upper() + summary[1:] + "."
        made = commands.add_parser(
            name, help=summary, description=description, epilog=epilog, parents=[*parents, common]
        )
        made.set_defaults(parser=made, load=[])
        return made

    command("list", "show the transformations", options.as_json(), code).add_argument(
        "--rules", action="store_true", help="show the rules that come with the package, and those of --rule-file"
    )
    show = command("show", "draw the patterns of a transformation", options.as_json(), code)
    show.add_argument("name", metavar="NAME", help="short name of a transformation (see `onnxgraft list`)")
    command("recipes", "show the recipes: transformations for a family of networks", options.as_json(), code, recipes)

    prepare = command(
        "prepare",
        "convert exporters' forms to those that the patterns know, without changing what the model computes",
        options.one_model(),
        options.output(required=True),
        epilog=_DATA_FILE,
    )
    prepare.add_argument(
        "--step", action="append", metavar="NAME", help="run only this step; may be given several times"
    )
    options.skipped_steps(prepare, "leave this step out; may be given several times")

    find = command(
        "find",
        "show where patterns match, and change nothing",
        options.one_model(),
        options.chosen_transformations(),
        options.as_json(),
        code,
        recipes,
        epilog="Each transformation is searched for in the prepared model, not in the result of those before it.",
    )
    find.add_argument("--count", action="store_true", help="print the number of matches only")
    find.add_argument("--fail-if-none", action="store_true", help="end with code 4 if nothing matches")
    explain = command(
        "explain",
        "show why patterns do not match, or matches are refused; with --node, what happens to single nodes",
        options.one_model(),
        options.chosen_transformations(required=False),
        options.as_json(),
        code,
        recipes,
        epilog="Each transformation is searched for in the result of those before it; nothing is written. With --node "
        "alone, all transformations of the catalogue are tried, each on the prepared model.",
    )
    explain.add_argument(
        "--node",
        action="append",
        default=[],
        metavar="NAME",
        help="explain this node, or the node that writes this tensor; a glob; may be given several times",
    )
    explain.add_argument("--all", action="store_true", help="with --node: show all answers, not the nearest three")
    _add_apply_options(
        command(
            "apply",
            "apply transformations to a model, in the order given",
            options.one_model(),
            options.chosen_transformations(),
            options.chosen_operators(),
            options.output(required=False),
            options.seed("seed of the random weights; without it each run draws others"),
            fill_options.fill_options(),
            data_options.sizes(),
            data_options.image_options(),
            code,
            recipes,
            epilog=_DATA_FILE,
        )
    )

    inspect = command(
        "inspect",
        "show the main facts about a model, or two models side by side",
        options.one_model(),
        options.as_json(),
        epilog="To find the recipes, each of them is run in memory.",
    )
    inspect.add_argument(
        "after", nargs="?", type=Path, metavar="AFTER.onnx", help="a second model, to show the differences"
    )
    inspect.add_argument("--no-recipes", dest="recipes", action="store_false", help="do not try recipes")
    _add_calibrate_options(
        command(
            "calibrate",
            "collect the ranges that the tensors of a float model take on data",
            options.seed("seed of random data (default: 0)"),
            data_options.sizes(),
            data_options.image_options(),
            epilog="DATA: an .npz or .npy file, a folder of them by input name, a folder of images, or random:N, which"
            " says little about a trained model. With --from-qdq the numbers come from a quantized model instead.",
        )
    )
    _add_pattern_options(
        command(
            "pattern",
            "write the pattern of nodes of a model, to paste into --pattern or a rule file",
            options.one_model(),
            options.as_json(),
        )
    )
    _add_check_options(
        command(
            "check",
            "try rules or transformations on random graphs, and compare numbers if they keep the function",
            epilog="Ends with code 3 if something is wrong.",
        )
    )

    lower = command(
        "lower",
        "write a quantized model in standard operators, so that onnxruntime and other tools can compute it",
        options.one_model(),
        options.output(required=True),
        epilog=_DATA_FILE,
    )
    lower.add_argument(
        "--qdq",
        action="store_true",
        help="with QuantizeLinear and DequantizeLinear around float operators, not with floats that hold the integers",
    )
    _add_run_options(
        command(
            "run",
            "compute a model, quantized or not, and write its outputs",
            options.one_model(),
            options.seed("seed of random inputs (default: 0)"),
            data_options.sizes(),
            data_options.image_options(),
            epilog="For several samples, each output is stacked along a new first axis.",
        )
    )

    verify = command(
        "verify",
        "compare two models by numbers: same inputs, same outputs",
        options.two_models(),
        options.seed("seed of the random inputs (default: 0)"),
        options.as_json(),
        data_options.image_options(),
        epilog="Ends with code 3 if the models differ, with 7 if an output has no finite element to compare.",
    )
    verify.add_argument(
        "--inputs",
        "--data",
        type=data_options.data_or_random,
        metavar="DATA",
        help="compute on these values instead of random ones: an .npz file with an array for each input, a folder of "
        "arrays or images, or random:N",
    )
    _add_accuracy_options(verify)
    verify.add_argument(
        "--size",
        action="append",
        type=options.named_size,
        default=[],
        metavar="NAME=N",
        help="size of a symbolic dimension, by its name or as INPUT[AXIS]; may be given several times",
    )
    verify.add_argument(
        "--runs", type=whole_number(1), default=1, metavar="N", help="how many random inputs to try (default: 1)"
    )
    verify.add_argument(
        "--tolerance",
        type=positive_number,
        metavar="X",
        help="largest difference allowed, relative to the largest value of the output (default: 1e-4, more for float16"
        " and bfloat16)",
    )

    diff = command("diff", "show the differences of two graphs", options.two_models(), options.as_json())
    diff.add_argument(
        "--html", type=options.path_ending_in(".html"), metavar="D.html", help="also write a page with pictures"
    )
    diff.add_argument("--exit-code", action="store_true", help="end with code 3 if there is a difference")
    diff.add_argument("--force", action="store_true", help="overwrite existing files")

    report = command(
        "report-bug",
        "collect what a bug report needs, without weights: the graph with shapes only, versions, a command's output",
        options.one_model(),
        epilog="After -- comes the command that went wrong, for instance: onnxgraft report-bug model.onnx -o bug.zip --"
        " apply model.onnx --recipe resnet -o out.onnx. It is run, so it may write files.",
    )
    report.add_argument(
        "-o", "--output", type=options.file, required=True, metavar="BUG.zip|FOLDER", help="what to write"
    )
    report.add_argument(
        "--rename",
        action="store_true",
        help="also replace the names of nodes, tensors and symbolic dimensions",
    )
    report.add_argument(
        "--keep-shapes",
        action="store_true",
        help="keep the values of short vectors of INT64: shapes, axes and bounds, on which the preparation depends",
    )
    return parser


def _add_accuracy_options(verify: argparse.ArgumentParser) -> None:
    accuracy = verify.add_argument_group(
        "accuracy", "how close a quantized model is to the float one; any of these replaces the tolerance"
    )
    accuracy.add_argument(
        "--sqnr",
        type=positive_number,
        metavar="DB",
        help="signal to quantization noise that each output must reach over all samples, in dB",
    )
    accuracy.add_argument(
        "--per-tensor",
        action="store_true",
        help="measure every tensor that both models have, the share that quantize nodes cut off and the bits that sums "
        "need",
    )
    accuracy.add_argument(
        "--sensitivity", action="store_true", help="also quantize each operator alone, which takes a pass for each"
    )
    accuracy.add_argument(
        "--html", type=options.path_ending_in(".html"), metavar="A.html", help="also write a page with a plot"
    )
    accuracy.add_argument("--force", action="store_true", help="overwrite an existing page")


def _add_pattern_options(pattern: argparse.ArgumentParser) -> None:
    pattern.add_argument(
        "--nodes", nargs="+", default=[], metavar="NAME", help="names of nodes, or of the tensors that they write"
    )
    pattern.add_argument("--from", dest="start", metavar="TENSOR", help="with --to: all nodes on the paths between")
    pattern.add_argument("--to", dest="end", metavar="TENSOR", help="the tensor where the paths end")
    pattern.add_argument("--toml", action="store_true", help="write a rule to complete, with the attributes found")
    pattern.add_argument("--prepare", action="store_true", help="use the prepared model, as `find` and `apply` see it")


def _add_check_options(check: argparse.ArgumentParser) -> None:
    check.add_argument("file", metavar="FILE.toml|FILE.py|MODULE", help="a rule file, or code that registers classes")
    check.add_argument(
        "--graphs", type=whole_number(1), default=200, metavar="N", help="how many random graphs (default: 200)"
    )
    check.add_argument("--seed", type=whole_number(0), default=0, metavar="N", help="their seed (default: 0)")
    check.add_argument(
        "--only", action="append", default=[], metavar="NAME", help="check only this one; may be given several times"
    )
    check.add_argument(
        "--counterexamples", type=Path, metavar="FOLDER", help="write the graph of each finding as a model"
    )


def _add_evaluator(command: argparse.ArgumentParser) -> None:
    command.add_argument(
        "--evaluator",
        choices=("auto", "onnxruntime", "reference"),
        default="auto",
        help="the evaluator of the model (default: onnxruntime if it is installed)",
    )


def _add_run_options(run: argparse.ArgumentParser) -> None:
    run.add_argument(
        "--inputs",
        type=data_options.data_or_random,
        required=True,
        metavar="DATA",
        help="an .npz file with an array for each input, a folder of arrays or images, or random:N",
    )
    run.add_argument(
        "-o",
        "--output",
        type=options.path_ending_in(".npz"),
        required=True,
        metavar="OUT.npz",
        help="the file to write",
    )
    run.add_argument("--force", action="store_true", help="overwrite existing files")
    run.add_argument(
        "--tensor",
        action="append",
        default=[],
        metavar="NAME",
        help="compute this tensor instead of the graph's outputs; may be given several times",
    )
    _add_evaluator(run)


def _add_calibrate_options(calibrate: argparse.ArgumentParser) -> None:
    calibrate.add_argument("model", type=Path, nargs="?", metavar="MODEL.onnx", help="the float model")
    source = calibrate.add_mutually_exclusive_group(required=True)
    source.add_argument("--data", type=data_options.data_or_random, metavar="DATA", help="the samples to compute")
    source.add_argument(
        "--from-qdq",
        type=Path,
        metavar="Q.onnx",
        help="take ranges and INT8 weights from this model, which another tool has made from the float model",
    )
    calibrate.add_argument(
        "--float", dest="float_model", type=Path, metavar="F.onnx", help="the float model, to go with --from-qdq"
    )
    calibrate.add_argument("-o", "--output", type=Path, required=True, metavar="RANGES.json", help="the file to write")
    calibrate.add_argument("--force", action="store_true", help="overwrite existing files")
    calibrate.add_argument(
        "--method",
        choices=("min-max", "percentile", "mse"),
        default="min-max",
        help="how a range is chosen: the extremes (default), without the outermost values, or by the least mean square"
        " error of 8 bits",
    )
    calibrate.add_argument(
        "--percentile",
        type=positive_number,
        default=99.99,
        metavar="P",
        help="how many percent of the values `percentile` keeps (default: 99.99)",
    )
    calibrate.add_argument(
        "--merge",
        action="append",
        type=Path,
        default=[],
        metavar="OTHER.json",
        help="join these ranges of the same model with the new ones; may be given several times",
    )
    calibrate.add_argument(
        "--all-tensors",
        action="store_true",
        help="watch every tensor, not only those that quantized operators would read",
    )
    _add_evaluator(calibrate)
    calibrate.add_argument(
        "--no-prepare",
        dest="prepare",
        action="store_false",
        help="take the model as it is, without the steps of `onnxgraft prepare`",
    )


def _add_apply_options(apply: argparse.ArgumentParser) -> None:
    apply.add_argument(
        "--report-cards",
        type=whole_number(0),
        metavar="N",
        help="how many occurrences the report's page draws (default: 300)",
    )
    apply.add_argument(
        "--interactive", action="store_true", help="show each occurrence and ask whether to replace it (y, n, a, q)"
    )
    apply.add_argument("--until-stable", action="store_true", help="repeat until the graph stops changing")
    apply.add_argument(
        "--no-finish",
        dest="finish",
        action="store_false",
        help="leave weights and biases as the transformations write them, even if shapes do not fit",
    )
    apply.add_argument("--dry-run", action="store_true", help="do everything but write the model")
    apply.add_argument(
        "--keep-going", action="store_true", help="undo a transformation that fails, leave it out and go on"
    )
    apply.add_argument(
        "--report",
        type=options.path_ending_in(".json", ".html"),
        metavar="R.json|R.html",
        help="write what was replaced, and what was not and why",
    )
    apply.add_argument(
        "--fail-if-unchanged",
        action="store_true",
        help="if nothing was replaced, write nothing and end with code 4",
    )
