"""The model that `find` and `explain` search."""

from __future__ import annotations

import argparse

import onnx

from onnxgraft.cli import chosen
from onnxgraft.io import model_files
from onnxgraft.preparation import prepare


def read(options: argparse.Namespace) -> onnx.ModelProto:
    """Reads the model and prepares it in memory, unless `--no-prepare` was given.

    Raises:
        HostError: The model or the recipe cannot be used.
    """
    model = model_files.load(options.model)
    if options.prepare:
        recipe = chosen.recipe(options)
        prepare(model, None if recipe is None else recipe.prepare, skip=options.skip_step, folder=options.model.parent)
    return model
