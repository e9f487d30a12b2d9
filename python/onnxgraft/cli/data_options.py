"""The options for the source of samples and for converting images to arrays."""

from __future__ import annotations

import argparse
from pathlib import Path
from typing import TYPE_CHECKING

from onnxgraft.cli.options import Parser, named_size, positive_number

if TYPE_CHECKING:
    from onnxgraft.samples import Images


def image_size(text: str) -> tuple[int, int]:
    """`HEIGHTxWIDTH`, or one number for both."""
    parts = text.lower().split("x")
    if len(parts) > 2 or not all(part.isascii() and part.isdigit() and int(part) > 0 for part in parts):
        raise argparse.ArgumentTypeError(f"'{text}' is not HxW with whole numbers above 0")
    return int(parts[0]), int(parts[-1])


def channel_numbers(text: str) -> tuple[float, ...]:
    """One number, or three of them with commas between."""
    try:
        numbers = tuple(float(part) for part in text.split(","))
    except ValueError:
        numbers = ()
    if len(numbers) not in {1, 3}:
        raise argparse.ArgumentTypeError(f"'{text}' is not one number, nor three with commas between them")
    return numbers


def data_or_random(text: str) -> str | Path:
    """A path, or `random:N` unchanged."""
    return text if text.startswith("random:") else Path(text)


def image_options() -> Parser:
    """The options for converting images to arrays."""
    group = Parser(add_help=False)
    images = group.add_argument_group("images", "how a folder of images becomes the model's input")
    images.add_argument("--image-size", type=image_size, metavar="HxW", help="size (default: the model's)")
    images.add_argument("--image-fit", choices=("stretch", "letterbox"), default="stretch", help="default: stretch")
    images.add_argument(
        "--image-scale", type=positive_number, default=1 / 255, metavar="X", help="factor of pixels (default: 1/255)"
    )
    images.add_argument(
        "--image-mean", type=channel_numbers, default=(0.0,), metavar="A,B,C", help="subtracted next (default: 0)"
    )
    images.add_argument(
        "--image-std", type=channel_numbers, default=(1.0,), metavar="A,B,C", help="divisor after that (default: 1)"
    )
    images.add_argument("--image-layout", choices=("auto", "NCHW", "NHWC"), default="auto", help="default: auto")
    images.add_argument("--image-color", choices=("RGB", "BGR"), default="RGB", help="default: RGB")
    return group


def sizes() -> Parser:
    """Sizes of symbolic dimensions, for random samples."""
    group = Parser(add_help=False)
    group.add_argument(
        "--size",
        action="append",
        type=named_size,
        default=[],
        metavar="NAME=N",
        help="size of a symbolic dimension of random data, by its name or as INPUT[AXIS]; may be given several times",
    )
    return group


def images_of(options: argparse.Namespace) -> Images:
    """The `Images` of `image_options`.

    Raises:
        DataError: A number is invalid.
    """
    from onnxgraft.samples import Images  # --help should not wait for it  # noqa: PLC0415

    return Images(
        size=options.image_size,
        mean=options.image_mean,
        std=options.image_std,
        scale=options.image_scale,
        layout=options.image_layout,
        fit=options.image_fit,
        color=options.image_color,
    )
