"""`onnxgraft apply`: read, rewrite, write, and say what was replaced."""

from __future__ import annotations

import argparse
from collections.abc import Sequence

from rich import box
from rich.filesize import decimal
from rich.table import Table

from onnxgraft import model_files
from onnxgraft.catalogue import find
from onnxgraft.cli import consoles
from onnxgraft.external_data import has_external_data
from onnxgraft.rewriting import Step, rewrite


def run(options: argparse.Namespace) -> None:
    """Applies the named transformations; nothing is written unless all went well."""
    chosen = [find(name) for name in options.transformation]
    folder = options.model.parent
    with (
        model_files.ModelOutput(options.output, overwrite=options.force) as output,
        consoles.progress(total=len(chosen) + 2) as show,
    ):
        show(f"reading {options.model.name}")
        model = model_files.load(options.model)
        if has_external_data(model):
            output.use_external_data()
        steps = rewrite(model, chosen, folder=folder, seed=options.seed, on_start=lambda step: show(step.name))
        show(f"writing {options.output.name}")
        saved = output.save(model, folder)
    _report(steps, saved)


def _report(steps: Sequence[Step], saved: model_files.SavedModel) -> None:
    table = Table(box=box.SIMPLE, show_footer=len(steps) > 1)
    table.add_column("Transformation", "total")
    for heading, footer in (
        ("Replaced", sum(step.replaced for step in steps)),
        ("Nodes before", steps[0].nodes_before),
        ("Nodes after", steps[-1].nodes_after),
    ):
        table.add_column(heading, str(footer), justify="right")
    for step in steps:
        table.add_row(step.name, str(step.replaced), str(step.nodes_before), str(step.nodes_after))
    console = consoles.results()
    console.print(table)
    console.print(f"wrote {saved.path} ({decimal(saved.size)})", soft_wrap=True)
    if saved.data_path is not None:
        console.print(f"wrote {saved.data_path} ({decimal(saved.data_size)})", soft_wrap=True)
    if saved.outgrew_one_file:
        console.print("The result is larger than 2 GB, so its weights went to the second file.", soft_wrap=True)
