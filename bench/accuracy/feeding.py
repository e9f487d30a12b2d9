"""The inputs of the models: the packages' own pipelines run on drawn pages and synthetic sounds, and are recorded."""

from __future__ import annotations

import importlib
import sys
from collections.abc import Callable, Mapping
from pathlib import Path
from typing import Any

import numpy as np

from bench.accuracy import pages, sounds
from bench.accuracy.networks import BY_NAME, OCR, WHEELS, Network

READ_PAGES = range(13)
# The data of each model: pages, pages whose lines it gets one by one, both ways up, and recordings.
_NUMBERS = {"calibration": range(100, 132), "test": range(200, 232)}
_DETECTOR_PAGES, _RECOGNIZER_LINES, _SOUNDS = 4, 24, 2


def pipeline(models: Mapping[str, Path], *, fuses: bool = True) -> Any:
    """The OCR package's own pipeline, with models in place of its own, which onnxruntime fuses or not."""
    sys.path.insert(0, str(WHEELS))
    package: Any = importlib.import_module("rapidocr_onnxruntime")
    sys.path.remove(str(WHEELS))
    engine = package.RapidOCR(**{f"{name}_model_path": str(path) for name, path in models.items()})
    if not fuses:
        for name, session in _sessions(engine).items():
            session.session = _session(models[name], fuses=False)
    return engine


def _sessions(engine: Any) -> dict[str, Any]:
    return {"det": engine.text_det.infer, "rec": engine.text_rec.session, "cls": engine.text_cls.infer}


def collect() -> None:
    """Writes the inputs of each model to files, once."""
    for part, numbers in _NUMBERS.items():
        if all(list(BY_NAME[name].data(part).glob("*.npz")) for name in BY_NAME):
            continue
        engine = pipeline({name: BY_NAME[name].path for name in OCR})
        for name, session in _sessions(engine).items():
            session.session = _Listening(session.session, _writer(BY_NAME[name], part))
        for number in numbers[:_DETECTOR_PAGES]:
            engine.text_det(pages.page(number)[0])
        lines = [picture for number in numbers for picture in pages.line_pictures(number)]
        # Some of each page.
        for picture in lines[:: len(lines) // _RECOGNIZER_LINES][:_RECOGNIZER_LINES]:
            engine.text_rec([picture])
        engine.text_cls([turned for picture in lines[::2] for turned in (picture, picture[::-1, ::-1].copy())])
        network = BY_NAME["vad"]
        write = _writer(network, part)
        for number in numbers[:_SOUNDS]:
            listen(_session(network.path), number, write)


def listen(session: Any, number: int, write: Callable[[Mapping[str, Any]], None]) -> list[float]:
    """Runs the voice detector over one sound; returns how likely each piece is speech."""
    state, found = np.zeros((2, 1, 128), np.float32), []
    for chunk in sounds.chunks(sounds.sound(number)):
        feeds = {"input": chunk, "state": state, "sr": np.array(16000, np.int64)}
        write(feeds)
        likely, state = session.run(["output", "stateN"], feeds)
        found.append(float(likely[0, 0]))
    return found


def _session(path: Path, *, fuses: bool = True) -> Any:
    onnxruntime: Any = importlib.import_module("onnxruntime")
    options = onnxruntime.SessionOptions()
    if not fuses:
        options.graph_optimization_level = onnxruntime.GraphOptimizationLevel.ORT_DISABLE_ALL
    return onnxruntime.InferenceSession(path, options, providers=["CPUExecutionProvider"])


def _writer(network: Network, part: str) -> Callable[[Mapping[str, Any]], None]:
    folder = network.data(part)
    folder.mkdir(parents=True, exist_ok=True)
    count = 0

    def write(feeds: Mapping[str, Any]) -> None:
        nonlocal count
        np.savez(folder / f"{count:04}.npz", **feeds)
        count += 1

    return write


class _Listening:
    """A session that records its inputs."""

    def __init__(self, session: Any, write: Callable[[Mapping[str, Any]], None]) -> None:
        self._session, self._write = session, write

    def run(self, names: list[str], feeds: Mapping[str, Any]) -> Any:
        self._write(feeds)
        return self._session.run(names, feeds)

    def __getattr__(self, name: str) -> Any:
        return getattr(self._session, name)
