"""The options of `apply` that fill a model with real numbers."""

from __future__ import annotations

import argparse
from collections.abc import Callable
from pathlib import Path
from typing import TYPE_CHECKING

from onnxgraft.cli.data_options import data_or_random, images_of
from onnxgraft.cli.options import Parser

if TYPE_CHECKING:
    import onnx

    from onnxgraft.calibration import Calibration
    from onnxgraft.filling import Filling


def share(text: str) -> float:
    """`5%` or `0.05`: at least 0 and less than all."""
    number = text.removesuffix("%")
    try:
        value = float(number) / (100 if number != text else 1)
    except ValueError:
        value = -1.0
    if not 0 <= value < 1:
        raise argparse.ArgumentTypeError(f"'{text}' is not a share such as 5% or 0.05, at least 0 and below 1")
    return value


def fill_options() -> Parser:
    """The source of the numbers, and how they are chosen."""
    parser = Parser(add_help=False)
    group = parser.add_argument_group(
        "real numbers", "use weights, biases and scales of the model itself, not random ones"
    )
    source = group.add_mutually_exclusive_group()
    source.add_argument(
        "--calibration", type=Path, metavar="RANGES.json", help="fill with the ranges that `onnxgraft calibrate` wrote"
    )
    source.add_argument(
        "--calibrate",
        type=data_or_random,
        metavar="DATA",
        help="collect the ranges on these samples first, and use the samples to choose what helps",
    )
    group.add_argument(
        "--data",
        type=data_or_random,
        metavar="DATA",
        help="with --calibration: samples to find out whether corrected biases help, and what should stay float",
    )
    group.add_argument(
        "--method",
        choices=("min-max", "percentile", "mse"),
        default="min-max",
        help="with --calibrate: how a range is chosen (default: min-max)",
    )
    group.add_argument("--symmetric", action="store_true", help="quantize without offsets")
    group.add_argument(
        "--leave",
        action="append",
        default=[],
        metavar="NAME",
        help="leave the operator of this name, or that writes this tensor, float; may be given several times",
    )
    group.add_argument(
        "--float-macs",
        type=share,
        default=0.0,
        metavar="SHARE",
        help="leave the operators float whose quantization costs most, up to this share of the multiply-adds: 5%%",
    )
    group.add_argument(
        "--bias-correction",
        choices=("auto", "on", "off"),
        default="auto",
        help="subtract each operator's mean error from its bias: if it helps on the data (default), always, or never",
    )
    return parser


def check(options: argparse.Namespace) -> None:
    """Ends the process for wrong usage that is visible without a model."""
    error = options.parser.error
    if options.data is not None and options.calibrate is not None:
        error("--calibrate already names the data: use --data with --calibration only")
    if options.data is None and options.calibrate is None:
        if options.float_macs:
            error("--float-macs tries operators on samples: it needs --data or --calibrate")
        if options.bias_correction == "on":
            error("--bias-correction on computes samples: it needs --data or --calibrate")


def filling_of(
    options: argparse.Namespace,
    model: onnx.ModelProto,
    folder: Path,
    own: Calibration | None,
    show: Callable[[str], object],
) -> Filling | None:
    """The numbers to fill the model with; None for random numbers.

    Args:
        options: Those of `apply`.
        model: The float model.
        folder: The folder that the locations of its external tensors start from.
        own: The calibration that came with the model; one from the options has priority.
        show: Called with a description of the current work.

    Raises:
        HostError: The calibration or the data cannot be used.
    """
    if options.calibration is None and options.calibrate is None and own is None:
        for name in ("data", "symmetric", "leave"):
            if getattr(options, name):
                options.parser.error(f"--{name} needs --calibration or --calibrate")
        return None
    from onnxgraft.calibration import calibrate, read_calibration  # --help should not wait for it  # noqa: PLC0415
    from onnxgraft.cli import chosen  # noqa: PLC0415
    from onnxgraft.filling import Filling  # noqa: PLC0415
    from onnxgraft.samples import open_data  # noqa: PLC0415

    images, sizes = images_of(options), dict(options.size)
    source = options.calibrate if options.calibrate is not None else options.data
    data = None if source is None else open_data(source, model, images=images, sizes=sizes, seed=options.seed or 0)
    if options.calibration is not None:
        calibration = read_calibration(options.calibration)
    elif options.calibrate is None:
        assert own is not None
        calibration = own
    else:
        recipe, steps = chosen.recipe(options), chosen.preparation(options)
        if steps is True and recipe is not None and recipe.prepare is not None:
            steps = list(recipe.prepare)
        show("calibrating")
        calibration = calibrate(
            model,
            options.calibrate,
            method=options.method,
            images=images,
            sizes=sizes,
            seed=options.seed or 0,
            prepare=steps,
            folder=folder,
            progress=lambda done, total: show(f"calibrating: sample {done} of {total or '?'}"),
        )
    return Filling(
        calibration,
        symmetric=options.symmetric,
        leave=options.leave,
        float_share=options.float_macs,
        bias_correction={"auto": None, "on": True, "off": False}[options.bias_correction],
        data=data,
    )
