"""The model file that a command writes."""

from __future__ import annotations

import argparse

from rich.filesize import decimal

from onnxgraft.cli import claims, consoles
from onnxgraft.io import model_files
from onnxgraft.texts import one_line


def claim(options: argparse.Namespace) -> model_files.ModelOutput:
    """The place that the options of `output` name.

    Raises:
        ModelFileError: It cannot be written, or is taken and `--force` is missing.
    """
    output = model_files.ModelOutput(
        options.output,
        overwrite=options.force,
        save_as_external_data=options.save_as_external_data,
        keep_external_data=options.keep_external_data,
        external_data_threshold=options.external_data_threshold,
    )
    claims.add(output.file)
    return output


def tell(saved: model_files.SavedModel) -> None:
    """Reports what was written."""
    consoles.say(f"wrote {one_line(saved.path)} ({decimal(saved.size)})")
    if saved.data_path is not None:
        consoles.say(f"wrote {one_line(saved.data_path)} ({decimal(saved.data_size)})")
    for path in saved.kept:
        consoles.say(f"refers to {one_line(path)}")
    if saved.outgrew_one_file:
        consoles.say("The result is larger than 2 GB, so its weights went to the second file.")
