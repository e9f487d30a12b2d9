"""The commands and their options."""

from __future__ import annotations

import argparse
from collections.abc import Sequence
from importlib.metadata import version

from onnxgraft.cli import options
from onnxgraft.cli.options import Parser, positive_number, whole_number


def parse(arguments: Sequence[str] | None) -> argparse.Namespace:
    """Reads the arguments (those of the process for None); wrong usage ends the process."""
    parser = make_parser()
    options = parser.parse_args(arguments)
    if options.command == "apply" and options.output is None and not options.dry_run:
        parser.error("apply needs -o/--output, the model to write, or --dry-run")
    return options


def make_parser() -> argparse.ArgumentParser:
    """Builds the parser; the result's `command` is the name of a command."""
    parser = Parser(prog="onnxgraft", description="Rewrites the graphs of ONNX models for quantized inference.")
    parser.add_argument("--version", action="version", version="%(prog)s " + version("onnx-graft"))
    commands = parser.add_subparsers(dest="command", metavar="COMMAND", required=True)
    common = options.common()

    def command(name: str, summary: str, *parents: Parser, epilog: str | None = None) -> Parser:
        description = summary[0].upper() + summary[1:] + "."
        return commands.add_parser(
            name, help=summary, description=description, epilog=epilog, parents=[*parents, common]
        )

    command("list", "show the transformations")
    show = command("show", "draw the patterns of a transformation")
    show.add_argument("name", metavar="NAME", help="short name of a transformation")
    command("recipes", "show the recipes: transformations for a family of networks")

    prepare = command(
        "prepare",
        "bring exporters' forms to those that the patterns know, without changing what the model computes",
        options.one_model(),
        options.output(required=True),
    )
    prepare.add_argument("--step", action="append", metavar="NAME", help="only this step; may be given several times")
    prepare.add_argument("--skip-step", action="append", default=[], metavar="NAME", help="leave this step out")

    command(
        "find",
        "show where patterns match, and change nothing",
        options.one_model(),
        options.chosen_transformations(),
        options.as_json(),
        epilog="Each transformation is looked for in the model as it is, not in what the ones before would leave.",
    )
    command(
        "explain",
        "say why patterns do not match",
        options.one_model(),
        options.chosen_transformations(),
        options.as_json(),
    )
    _add_apply_options(
        command(
            "apply",
            "apply transformations to a model, in the order given",
            options.one_model(),
            options.chosen_transformations(),
            options.output(required=False),
            options.seed(),
            epilog="Weights in an external file stay in one, beside the output.",
        )
    )

    verify = command(
        "verify", "compare two models by numbers: same inputs, same outputs", options.two_models(), options.seed()
    )
    verify.add_argument(
        "--size",
        action="append",
        type=options.named_size,
        default=[],
        metavar="NAME=N",
        help="size of a symbolic dimension of the inputs; may be given several times",
    )
    verify.add_argument("--runs", type=whole_number(1), default=1, metavar="N", help="number of inputs (default: 1)")
    verify.add_argument(
        "--tolerance",
        type=positive_number,
        metavar="X",
        help="largest difference allowed, relative to the scale of the output",
    )

    diff = command("diff", "show what is different between two graphs", options.two_models())
    diff.add_argument(
        "--html", type=options.path_ending_in(".html"), metavar="D.html", help="write a page with pictures"
    )
    diff.add_argument("--force", action="store_true", help="overwrite existing files")
    return parser


def _add_apply_options(apply: argparse.ArgumentParser) -> None:
    apply.add_argument("--until-stable", action="store_true", help="repeat until the graph does not change any more")
    apply.add_argument("--dry-run", action="store_true", help="do everything but write the model")
    apply.add_argument(
        "--keep-going", action="store_true", help="leave a transformation that fails out and go on with the next"
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
