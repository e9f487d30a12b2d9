"""The options of the command line."""

from __future__ import annotations

import argparse
from importlib.metadata import version
from pathlib import Path
from typing import NoReturn

LARGEST_SEED = 2**32 - 1
WRONG_USAGE = 2


class _Parser(argparse.ArgumentParser):
    """Reports wrong usage in one line."""

    def error(self, message: str) -> NoReturn:
        self.exit(WRONG_USAGE, f"{self.prog}: error: {message} (see `{self.prog} --help`)\n")


def _seed(text: str) -> int:
    value = int(text) if text.isascii() and text.isdigit() else -1
    if not 0 <= value <= LARGEST_SEED:
        raise argparse.ArgumentTypeError(f"'{text}' is not a whole number from 0 to {LARGEST_SEED}")
    return value


def make_parser() -> argparse.ArgumentParser:
    """Builds the parser; the result's `command` is 'list' or 'apply'."""
    parser = _Parser(prog="onnxgraft", description="Rewrites the graphs of ONNX models for quantized inference.")
    parser.add_argument("--version", action="version", version="%(prog)s " + version("onnx-graft"))
    commands = parser.add_subparsers(dest="command", metavar="COMMAND", required=True)

    commands.add_parser("list", help="show the transformations", description="Shows the transformations.")

    apply = commands.add_parser(
        "apply",
        help="apply transformations to a model",
        description="Applies transformations to a model, in the order given, and writes the result.",
        epilog="Weights in an external file stay in one: OUT.onnx.data beside the output.",
    )
    apply.add_argument("model", type=Path, metavar="MODEL.onnx", help="the model to read")
    apply.add_argument(
        "-t",
        "--transformation",
        action="append",
        required=True,
        metavar="NAME",
        help="short name of a transformation (see `onnxgraft list`); may be given several times",
    )
    apply.add_argument("-o", "--output", type=Path, required=True, metavar="OUT.onnx", help="the model to write")
    apply.add_argument("--seed", type=_seed, metavar="N", help="seed of the random numbers, for the same result again")
    apply.add_argument("--force", action="store_true", help="overwrite an existing output")
    return parser
