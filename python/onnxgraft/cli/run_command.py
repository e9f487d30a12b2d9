"""`onnxgraft run`: the outputs of a model for given inputs."""

from __future__ import annotations

import argparse
import io
import zipfile
from collections.abc import Mapping
from typing import Any

import numpy as np
import numpy.typing as npt

from onnxgraft.cli import claims, consoles
from onnxgraft.cli.data_options import images_of
from onnxgraft.cli.text_output import TextOutput
from onnxgraft.evaluation import answer
from onnxgraft.io import model_files
from onnxgraft.samples import open_data
from onnxgraft.text_table import table


def run(options: argparse.Namespace) -> int:
    """Computes the model and writes its outputs."""
    with TextOutput(options.output, overwrite=options.force) as output:
        model = model_files.load(options.model)
        claims.keep_off(options.model, model)
        samples = open_data(
            options.inputs, model, images=images_of(options), sizes=dict(options.size), seed=options.seed or 0
        )
        results = answer(
            model, samples, outputs=options.tensor, evaluator=options.evaluator, folder=options.model.parent
        )
        output.write_bytes(_as_npz(results))
    cells = [(name, array.dtype.name, f"[{','.join(map(str, array.shape))}]") for name, array in results.items()]
    consoles.say(table(("Tensor", "Type", "Shape"), cells, names=(0, 1)))
    consoles.say(f"wrote {options.output}")
    return 0


def _as_npz(arrays: Mapping[str, npt.NDArray[Any]]) -> bytes:
    """The content of an `.npz` file. `numpy.savez` cannot save an array of any name: "file" is its own argument."""
    buffer = io.BytesIO()
    with zipfile.ZipFile(buffer, "w", zipfile.ZIP_DEFLATED) as archive:
        for name, values in arrays.items():
            plain = values.astype(str) if values.dtype.kind == "O" else values  # strings
            with archive.open(f"{name}.npy", "w", force_zip64=True) as entry:
                np.lib.format.write_array(entry, plain, allow_pickle=False)
    return buffer.getvalue()
