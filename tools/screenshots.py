"""Takes the PNG pictures of docs/pictures/: pages that the program writes, as a browser shows them.

    python -m tools.screenshots [--browser chromium]

It needs Chromium, and Pillow (the extra `run`). It rewrites a model of examples/models/, opens the pages in a
browser without a window, and stores the pictures with few colours, so that each stays below 150 kB. No test compares
them, since fonts differ between machines.
"""

from __future__ import annotations

import argparse
import subprocess
import sys
import tempfile
from collections.abc import Sequence
from pathlib import Path

import numpy as np
from PIL import Image

from onnxgraft.cli import main as onnxgraft

ROOT = Path(__file__).resolve().parents[1]
FOLDER = ROOT / "docs/pictures"
MODELS = ROOT / "examples/models"
LIMIT = 150_000
# Picture -> page, width and height of the window.
SHOTS = {
    "map.png": ("yolov5.html", 1200, 760),
    "report.png": ("report.html", 1200, 900),
    "accuracy.png": ("accuracy.html", 1200, 700),
}


def make_pages(folder: Path) -> None:
    """Writes the page that README shows, and those of the tutorial."""
    pictures = np.random.default_rng(0).random((36, 1, 3, 64, 64), dtype=np.float32)
    np.savez(folder / "calibration.npz", images=pictures[:24])
    np.savez(folder / "test.npz", images=pictures[24:])
    float_model, result = str(MODELS / "resnet18_timm_c11.onnx"), str(folder / "int8.onnx")
    data, test = str(folder / "calibration.npz"), str(folder / "test.npz")
    apply = ["apply", float_model, "--recipe", "resnet", "--calibrate", data, "--method", "mse", "-o", result]
    yolov5, page = str(MODELS / "yolov5r2_even_c17.onnx"), str(folder / "yolov5.html")
    commands = (
        ["apply", yolov5, "--recipe", "yolov5", "--seed", "0", "-o", str(folder / "yolov5.onnx"), "--report", page],
        [*apply, "--report", str(folder / "report.html")],
        ["verify", float_model, result, "--data", test, "--html", str(folder / "accuracy.html")],
    )
    for command in commands:
        if code := onnxgraft([*command, "-q"]):
            sys.exit(f"onnxgraft {' '.join(command)}: exit code {code}")


def take(browser: str, page: Path, picture: Path, width: int, height: int) -> None:
    """Stores a page as the browser shows it."""
    options = ("--headless", "--no-sandbox", "--disable-gpu", "--hide-scrollbars", "--virtual-time-budget=3000")
    shot = page.with_suffix(".png")
    command = [browser, *options, f"--window-size={width},{height}", f"--screenshot={shot}", page.as_uri()]
    subprocess.run(command, check=True, capture_output=True)
    with Image.open(shot) as image:
        image.convert("RGB").quantize(64).save(picture, optimize=True)
    size = picture.stat().st_size
    print(f"wrote {picture.relative_to(ROOT)}, {size / 1000:.0f} kB")
    if size > LIMIT:
        sys.exit(f"{picture.name} is larger than {LIMIT / 1000:.0f} kB: make the window smaller")


def main(arguments: Sequence[str] | None = None) -> int:
    """Runs the command line; returns the exit code."""
    parser = argparse.ArgumentParser(prog="python -m tools.screenshots", description=__doc__.splitlines()[0])
    parser.add_argument("--browser", default="chromium", help="the program to open pages with (default: chromium)")
    browser = parser.parse_args(arguments).browser
    with tempfile.TemporaryDirectory(prefix="onnxgraft-") as name:
        folder = Path(name)
        make_pages(folder)
        for picture, (page, width, height) in SHOTS.items():
            take(browser, folder / page, FOLDER / picture, width, height)
    return 0


if __name__ == "__main__":
    sys.exit(main())
