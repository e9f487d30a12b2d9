"""`onnxgraft lower`: a quantized model in standard operators, for tools that know only those."""

from __future__ import annotations

import argparse

from onnxgraft.cli import model_output
from onnxgraft.evaluation import HARDWARE, lower, lower_to_qdq
from onnxgraft.io import model_files


def run(options: argparse.Namespace) -> int:
    """Lowers the model and writes it."""
    with model_output.claim(options) as output:
        model = model_files.load(options.model)
        folder = output.weights_for(model, options.model.parent, options.model).folder
        lowered = lower_to_qdq(model, folder=folder) if options.qdq else lower(model, HARDWARE, folder=folder)
        saved = output.save(lowered, options.model.parent)
    model_output.tell(saved)
    return 0
