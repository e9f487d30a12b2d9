"""Images as samples: read with Pillow, resized, scaled."""

from __future__ import annotations

import importlib
import warnings
from collections.abc import Iterator, Mapping, Sequence
from dataclasses import dataclass
from pathlib import Path
from typing import Any, Literal

import numpy as np
import numpy.typing as npt

from onnxgraft.errors import DataError
from onnxgraft.samples.declared import DeclaredInput

Array = npt.NDArray[Any]

IMAGE_ENDINGS = frozenset({".bmp", ".gif", ".jpeg", ".jpg", ".pgm", ".png", ".ppm", ".tif", ".tiff", ".webp"})
_PADDING = 114  # the grey that detectors are trained with


@dataclass(frozen=True)
class Images:
    """How an image becomes the value of an input.

    A pixel p of 0 .. 255 becomes (p * scale - mean) / std, channel by channel.

    Attributes:
        size: Height and width; None uses the model's, or the image's own if the model leaves it open.
        mean: For each channel, or one for all.
        std: For each channel, or one for all.
        scale: The factor that is applied to pixels first.
        layout: "auto" finds the axis on which the model has 1 or 3 channels.
        fit: "stretch" changes the ratio of the sides, "letterbox" keeps it and fills the rest with grey.
        color: The order of the channels.
    """

    size: tuple[int, int] | None = None
    mean: tuple[float, ...] = (0.0,)
    std: tuple[float, ...] = (1.0,)
    scale: float = 1 / 255
    layout: Literal["auto", "NCHW", "NHWC"] = "auto"
    fit: Literal["stretch", "letterbox"] = "stretch"
    color: Literal["RGB", "BGR"] = "RGB"

    def __post_init__(self) -> None:
        for name, numbers in (("mean", self.mean), ("std", self.std)):
            if len(numbers) not in {1, 3} or not np.isfinite(numbers).all():
                raise DataError(f"{name} of images must be 1 or 3 finite numbers, not {list(numbers)}")
        if 0.0 in self.std:
            raise DataError("std of images must not be 0: pixels are divided by it")
        if self.size is not None and min(self.size) < 1:
            raise DataError(f"the size of images must be a height and a width above 0, not {list(self.size)}")


class ImageFolder:
    """Samples from image files, each a batch of the model's length."""

    def __init__(self, place: Path, files: Sequence[Path], inputs: Mapping[str, DeclaredInput], images: Images) -> None:
        self.label = place.name
        self._files, self._images = files, images
        if len(inputs) != 1:
            raise DataError(
                f"images are for a model with one input; the inputs of this one: {', '.join(inputs) or 'none'}"
            )
        (self._input,) = inputs.values()
        self._channels_last = self._find_layout()
        self._batch = (self._input.dims or (1,))[0] or 1
        self.count: int | None = max(1, len(files) // self._batch)
        self._pillow = _pillow()

    def __iter__(self) -> Iterator[dict[str, Array]]:
        for start in range(0, len(self._files), self._batch):
            files = list(self._files[start : start + self._batch])
            if start and len(files) < self._batch:
                return
            files += files[-1:] * (self._batch - len(files))
            value = np.stack([self._read(file) for file in files])
            yield {self._input.name: self._input.checked(value, files[0].name)}

    def _find_layout(self) -> bool:
        dims = self._input.dims
        if dims is None or len(dims) != 4 or self._input.dtype.kind not in "fu":
            raise DataError(f"the input '{self._input.name}' is {self._input}, which does not accept images")
        if self._images.layout != "auto":
            return self._images.layout == "NHWC"
        return dims[1] not in {1, 3} and dims[3] in {1, 3}

    def _read(self, file: Path) -> Array:
        dims = self._input.dims or ()
        height, width, channels = (dims[1], dims[2], dims[3]) if self._channels_last else (dims[2], dims[3], dims[1])
        try:
            with warnings.catch_warnings():
                warnings.simplefilter("ignore")
                with self._pillow.open(file) as opened:
                    image = opened.convert("L" if channels == 1 else "RGB")
        except (OSError, ValueError, SyntaxError, self._pillow.DecompressionBombError) as error:
            raise DataError(f"cannot read the image '{file}': {' '.join(str(error).split())}") from None
        wanted = self._images.size or (height or image.height, width or image.width)
        pixels = np.asarray(_resized(self._pillow, image, wanted, letterbox=self._images.fit == "letterbox"))
        pixels = pixels.reshape(*pixels.shape[:2], -1)
        if self._images.color == "BGR":
            pixels = pixels[:, :, ::-1]
        if self._input.dtype.kind == "f":
            mean, std = np.asarray(self._images.mean, np.float32), np.asarray(self._images.std, np.float32)
            if channels == 1 and len(mean) + len(std) > 2:
                raise DataError("the model takes grey images: mean and std must be one number each")
            pixels = ((pixels.astype(np.float32) * np.float32(self._images.scale) - mean) / std).astype(
                self._input.dtype
            )
        return pixels if self._channels_last else np.ascontiguousarray(pixels.transpose(2, 0, 1))


def _resized(pillow: Any, image: Any, size: tuple[int, int], *, letterbox: bool) -> Any:
    height, width = size
    if not letterbox:
        return image if image.size == (width, height) else image.resize((width, height), pillow.Resampling.BILINEAR)
    ratio = min(width / image.width, height / image.height)
    inner = (max(1, round(image.width * ratio)), max(1, round(image.height * ratio)))
    grey = _PADDING if image.mode == "L" else (_PADDING,) * 3
    result = pillow.new(image.mode, (width, height), grey)
    scaled = image if image.size == inner else image.resize(inner, pillow.Resampling.BILINEAR)
    result.paste(scaled, ((width - inner[0]) // 2, (height - inner[1]) // 2))
    return result


def _pillow() -> Any:
    try:
        return importlib.import_module("PIL.Image")
    except ImportError as error:
        raise DataError("images are read with Pillow: pip install 'onnx-graft[run]'") from error
