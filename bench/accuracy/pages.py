"""Pages of text, drawn in several fonts: the same in each run."""

from __future__ import annotations

import importlib.util
from pathlib import Path

import numpy as np
import numpy.typing as npt
from PIL import Image, ImageDraw, ImageFilter, ImageFont

Picture = npt.NDArray[np.uint8]

_FONTS = (
    *("DejaVuSans", "DejaVuSans-Bold", "DejaVuSans-Oblique", "DejaVuSerif", "DejaVuSerif-Bold", "DejaVuSerif-Italic"),
    *("DejaVuSansMono", "DejaVuSansMono-Bold", "STIXGeneral", "STIXGeneralBol", "STIXGeneralItalic"),
)
_WIDTH, _LINES, _STEP = 900, 8, 66
_INK = 150  # darker than any paper
_SUBJECTS = "The ferry|A grey heron|Our neighbour|The last train|Every second lamp|Her notebook|The baker|A thin wire"
_VERBS = "waits for|crosses|forgets|paints|follows|measures|sells|repairs"
_OBJECTS = "the north pier|an empty hall|two wooden boats|the winter timetable|a box of screws|the market square"
_TAILS = "before noon|on Friday|near gate {a}|for {a}.{b} EUR|at {a}:{b}|(room {a}-{b})|since {a}{b}|No. {b}/{a}"


def page(number: int) -> tuple[Picture, list[str]]:
    """A picture [H, W, 3] in BGR, and its lines from top to bottom."""
    rng = np.random.default_rng([7, number])
    shade = rng.integers(200, 256, 3)
    image = Image.new("RGB", (_WIDTH, _LINES * _STEP + 40), tuple(int(value) for value in shade))
    draw = ImageDraw.Draw(image)
    lines = [_line(rng) for _ in range(_LINES)]
    for row, text in enumerate(lines):
        font = ImageFont.truetype(f"{_font_folder()}/{rng.choice(_FONTS)}.ttf", int(rng.integers(22, 34)))
        ink = tuple(int(value) for value in rng.integers(0, 90, 3))
        draw.text((int(rng.integers(15, 60)), 20 + row * _STEP), text, fill=ink, font=font)
    if number % 3 == 1:
        image = image.filter(ImageFilter.GaussianBlur(0.6))
    if number % 4 == 2:
        image = image.rotate(float(rng.uniform(-1.2, 1.2)), Image.Resampling.BICUBIC, fillcolor=image.getpixel((2, 2)))
    noise = rng.normal(0, 4, (image.height, image.width, 1))
    return np.clip(np.asarray(image, np.float32) + noise, 0, 255).astype(np.uint8)[:, :, ::-1].copy(), lines


def line_pictures(number: int) -> list[Picture]:
    """The lines of a page, each cut out where it is drawn; none for a rotated page."""
    if number % 4 == 2:
        return []
    picture = page(number)[0]
    strips = [picture[14 + row * _STEP : 20 + row * _STEP + 44] for row in range(_LINES)]
    pictures = []
    for strip in strips:
        ink = np.flatnonzero(strip.min(axis=(0, 2)) < _INK)
        pictures.append(strip[:, max(ink[0] - 6, 0) : ink[-1] + 7])
    return pictures


def _line(rng: np.random.Generator) -> str:
    words = [str(rng.choice(choices.split("|"))) for choices in (_SUBJECTS, _VERBS, _OBJECTS, _TAILS)]
    return " ".join(words).format(a=rng.integers(1, 24), b=rng.integers(10, 60))


def _font_folder() -> Path:
    """The fonts that come with matplotlib."""
    found = importlib.util.find_spec("matplotlib")
    if found is None or found.origin is None:
        raise RuntimeError("matplotlib, whose fonts the pages are drawn in, is not installed")
    return Path(found.origin).parent / "mpl-data/fonts/ttf"
