"""`onnxgraft prepare`: converts exporters' forms to those that the patterns know."""

from __future__ import annotations

import argparse

from onnxgraft.cli import claims, consoles, model_output
from onnxgraft.io import model_files
from onnxgraft.preparation import prepare
from onnxgraft.text_table import table


def run(options: argparse.Namespace) -> int:
    """Prepares the model and writes it."""
    with model_output.claim(options) as output:
        model = model_files.load(options.model)
        claims.keep_off(options.model, model)
        store = output.weights_for(model, options.model.parent, options.model)
        steps = prepare(model, options.step, skip=options.skip_step, folder=store.folder, weight_store=store)
        saved = output.save(model, options.model.parent)
    consoles.say(table(("Step", "Changed"), [(step.name, step.changed) for step in steps], numbers=(1,)))
    model_output.tell(saved)
    return 0
