"""`onnxgraft report-bug`: the facts that developers need about a problem, without the weights of the model."""

from __future__ import annotations

import argparse
import io
import shutil
import zipfile
from collections.abc import Mapping
from pathlib import Path

import onnx
from google.protobuf.message import DecodeError

from onnxgraft.bug_report import collected
from onnxgraft.cli import consoles
from onnxgraft.cli.text_output import TextOutput
from onnxgraft.errors import ModelFileError


def run(options: argparse.Namespace) -> int:
    """Writes the report."""
    if options.output.suffix.lower() == ".zip":
        with TextOutput(options.output, overwrite=False) as output:
            files = _files(options)
            output.write_bytes(_zipped(files))
    else:
        files = _write_folder(options)
    for name, text in files.items():
        consoles.say(f"{name}: {len(text.splitlines())} lines")
    consoles.say(f"wrote {options.output}; it has no weights, but look at it before you send it")
    return 0


def _files(options: argparse.Namespace) -> Mapping[str, str]:
    model, why = None, ""
    try:
        model = onnx.load_model_from_string(options.model.read_bytes())
    except OSError as error:
        raise ModelFileError(f"cannot read '{options.model}': {error.strerror}") from None
    except (DecodeError, SystemError) as error:
        why = f"{type(error).__name__}, {options.model.stat().st_size} bytes"
    return collected(model, options.run, why=why, rename=options.rename, keep_shapes=options.keep_shapes)


def _zipped(files: Mapping[str, str]) -> bytes:
    buffer = io.BytesIO()
    with zipfile.ZipFile(buffer, "w", zipfile.ZIP_DEFLATED) as archive:
        for name, text in files.items():
            archive.writestr(name, text)
    return buffer.getvalue()


def _write_folder(options: argparse.Namespace) -> Mapping[str, str]:
    """Writes the files into a new folder, which is removed again if something fails."""
    folder: Path = options.output
    try:
        folder.mkdir()
    except FileExistsError:
        raise ModelFileError(f"'{folder}' exists: give the name of a new folder, or of a .zip file") from None
    except OSError as error:
        raise ModelFileError(f"cannot write '{folder}': {error.strerror}") from None
    try:
        files = _files(options)
        for name, text in files.items():
            (folder / name).write_text(text, encoding="utf-8", errors="backslashreplace")
    except BaseException:
        shutil.rmtree(folder, ignore_errors=True)
        raise
    return files
