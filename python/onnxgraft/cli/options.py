"""Kinds of option values and groups of options that several commands share."""

from __future__ import annotations

import argparse
import sys
from pathlib import Path
from typing import Any, NoReturn

from onnxgraft.cli import streams
from onnxgraft.cli.exit_codes import ExitCode
from onnxgraft.texts import joined

LARGEST_SEED = 2**32 - 1


class Parser(argparse.ArgumentParser):
    """Reports wrong usage in one line."""

    def _print_message(self, message: str, file: Any = None) -> None:
        write = streams.write if file is sys.stdout else streams.write_error
        write(message.rstrip("\n"))

    def error(self, message: str) -> NoReturn:
        """Ends the process."""
        self.exit(ExitCode.WRONG_USAGE, f"{self.prog}: error: {joined(message)} (see `{self.prog} --help`)\n")


def whole_number(smallest: int, largest: int | None = None) -> type[int]:
    """The kind of a whole number in a range."""

    def parse(text: str) -> int:
        value = int(text) if text.isascii() and text.isdigit() else -1
        if value < smallest or (largest is not None and value > largest):
            range_text = f"from {smallest} to {largest}" if largest is not None else f"of at least {smallest}"
            raise argparse.ArgumentTypeError(f"'{text}' is not a whole number {range_text}")
        return value

    return parse  # type: ignore[return-value]


def positive_number(text: str) -> float:
    """A finite number above 0."""
    try:
        value = float(text)
    except ValueError:
        value = 0.0
    if not 0.0 < value < float("inf"):
        raise argparse.ArgumentTypeError(f"'{text}' is not a number above 0")
    return value


def named_size(text: str) -> tuple[str, int]:
    """`NAME=N`: the size of a symbolic dimension."""
    name, _, number = text.rpartition("=")
    if not name or not number.isascii() or not number.isdigit() or int(number) == 0:
        raise argparse.ArgumentTypeError(f"'{text}' is not NAME=N with a whole number N of at least 1")
    return name, int(number)


def path_ending_in(*endings: str) -> type[Path]:
    """The kind of a file whose ending determines its format."""

    def parse(text: str) -> Path:
        path = Path(text)
        if path.suffix.lower() not in endings:
            raise argparse.ArgumentTypeError(f"'{text}' must end in {' or '.join(endings)}")
        return path

    return parse  # type: ignore[return-value]


def file(text: str) -> Path:
    """The name of a file; `-`, which means a standard stream elsewhere, is not accepted."""
    if text in {"", "-"}:
        raise argparse.ArgumentTypeError(
            f"'{text}' is not the name of a file: models are not read from or written to pipes"
        )
    return Path(text)


def _group() -> Parser:
    return Parser(add_help=False)


def common() -> Parser:
    """The options of every command."""
    group = _group()
    group.add_argument(
        "-v", "--verbose", action="count", default=0, help="say more on standard error (-vv: each pattern)"
    )
    group.add_argument("-q", "--quiet", action="store_true", help="show errors only")
    return group


def user_code() -> Parser:
    """The source of the user's own transformations."""
    group = _group()
    group.add_argument(
        "--load",
        action="append",
        default=[],
        metavar="FILE.py|MODULE",
        help="import this first, so that it can register transformations; may be given several times",
    )
    group.add_argument(
        "--rule-file",
        action="append",
        default=[],
        type=Path,
        metavar="FILE.toml",
        help="also use rules from this file, each by its name; may be given several times",
    )
    return group


def user_recipes() -> Parser:
    """The source of the user's own recipes."""
    group = _group()
    group.add_argument(
        "--recipe-file",
        type=Path,
        metavar="FILE.toml",
        help="also use recipes from this file; a recipe here replaces a built-in one of the same name",
    )
    return group


def one_model() -> Parser:
    """The model to read."""
    group = _group()
    group.add_argument("model", type=file, metavar="MODEL.onnx", help="the model to read")
    return group


def two_models() -> Parser:
    """The two models to compare."""
    group = _group()
    group.add_argument("before", type=file, metavar="BEFORE.onnx", help="the model before")
    group.add_argument("after", type=file, metavar="AFTER.onnx", help="the model after")
    return group


def chosen_transformations(*, required: bool = True) -> Parser:
    """Which transformations, and in which form of the model."""
    group = _group()
    choice = group.add_mutually_exclusive_group(required=required)
    choice.add_argument(
        "-t",
        "--transformation",
        action="append",
        default=[],
        metavar="NAME",
        help="short name of a transformation (see `onnxgraft list`); may be given several times",
    )
    choice.add_argument(
        "--recipe",
        metavar="NAME",
        help="the transformations of a recipe (see `onnxgraft recipes`); `apply` takes auto for the best one",
    )
    choice.add_argument(
        "--pattern", nargs="+", metavar="NODE", help='a pattern, one string per node: "Conv:0,1i,2i->3" "Relu:3->4"'
    )
    group.add_argument(
        "--replacement", nargs="*", metavar="NODE", help="the replacement of --pattern (default: all of it stays)"
    )
    group.add_argument(
        "--skip",
        action="append",
        default=[],
        metavar="NAME",
        help="leave this transformation out; may be given several times",
    )
    skipped_steps(group, "leave this step of the preparation out; may be given several times")
    group.add_argument(
        "--no-prepare",
        dest="prepare",
        action="store_false",
        help="take the model as it is, without the steps of `onnxgraft prepare`",
    )
    return group


def chosen_operators() -> Parser:
    """Which operators are quantized."""
    group = _group()
    for option, meaning in (("exclude", "leave these operators in float"), ("only", "quantize only these operators")):
        group.add_argument(
            f"--{option}",
            action="append",
            default=[],
            metavar="GLOB",
            help=f"{meaning}: a glob over node names, op:Gemm, or input:TENSOR; may be given several times",
        )
    return group


def skipped_steps(parser: argparse.ArgumentParser, meaning: str) -> None:
    """Adds `--skip-step`; `meaning` is the help text."""
    parser.add_argument("--skip-step", action="append", default=[], metavar="NAME", help=meaning)


def output(*, required: bool) -> Parser:
    """Where the result goes and how it is stored."""
    group = _group()
    group.add_argument("-o", "--output", type=file, required=required, metavar="OUT.onnx", help="the model to write")
    group.add_argument("--force", action="store_true", help="overwrite existing files")
    storage = group.add_mutually_exclusive_group()
    storage.add_argument(
        "--save-as-external-data",
        action="store_true",
        help="put the weights into a data file next to OUT.onnx, even if the model has none",
    )
    storage.add_argument(
        "--keep-external-data",
        action="store_true",
        help="refer to the data file of MODEL.onnx for the weights that do not change, instead of copying them",
    )
    group.add_argument(
        "--external-data-threshold",
        type=whole_number(0),
        metavar="BYTES",
        help="tensors of fewer bytes stay in the model file (default: 1024)",
    )
    return group


def seed(meaning: str) -> Parser:
    """The seed of random numbers; `meaning` is the help text."""
    group = _group()
    group.add_argument(
        "--seed",
        type=whole_number(0, LARGEST_SEED),
        metavar="N",
        help=meaning,
    )
    return group


def as_json() -> Parser:
    """Machine-readable output."""
    group = _group()
    group.add_argument("--json", action="store_true", help="print JSON")
    return group
