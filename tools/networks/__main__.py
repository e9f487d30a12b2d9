"""Writes the networks as ONNX files, each by several exporters: `python -m tools.networks FOLDER [NAME ...]`.

    script_c11      torch's older exporter, operator set 11, normalizations folded
    script_c17_bn   the same, operator set 17, normalizations kept
    dynamo_c18      the newer exporter, operator set 18
    dynamo_c18_raw  the same without its optimizations

A file has the name of its network and exporter: `densenet_script_c11.onnx`.
"""

from __future__ import annotations

import sys
import warnings
from collections.abc import Callable, Mapping
from pathlib import Path
from typing import Any

import torch
from torch import nn

from tools.networks.blocks import randomize
from tools.networks.classifiers import ConvNext, DenseNet, GhostNet, RegNet, VisionTransformer
from tools.networks.detectors import YoloV8, YoloX
from tools.networks.segmenters import DeepLab, HighResolution

NETWORKS: Mapping[str, Callable[[], nn.Module]] = {
    "yolov8": YoloV8, "yolox": YoloX, "densenet": DenseNet, "ghostnet": GhostNet, "regnet": RegNet,
    "convnext": ConvNext, "vit": VisionTransformer, "deeplab": DeepLab, "hrnet": HighResolution,
}  # fmt: skip

EXPORTERS: Mapping[str, Mapping[str, Any]] = {
    "script_c11": {"dynamo": False, "opset_version": 11},
    "script_c17_bn": {"dynamo": False, "opset_version": 17, "training": torch.onnx.TrainingMode.PRESERVE},
    "dynamo_c18": {"dynamo": True, "opset_version": 18, "external_data": False},
    "dynamo_c18_raw": {"dynamo": True, "opset_version": 18, "external_data": False, "optimize": False},
}


def export(folder: Path, names: list[str]) -> None:
    """Writes all networks, or those of these names."""
    folder.mkdir(parents=True, exist_ok=True)
    for name in names or NETWORKS:
        torch.manual_seed(0)
        network = randomize(NETWORKS[name]())
        image = torch.rand(1, 3, 64, 64)
        for exporter, options in EXPORTERS.items():
            path = folder / f"{name}_{exporter}.onnx"
            with warnings.catch_warnings(), torch.no_grad():
                warnings.simplefilter("ignore")
                torch.onnx.export(network, (image,), path, input_names=["image"], verbose=False, **options)
            print(f"wrote: {path}")


if __name__ == "__main__":
    export(Path(sys.argv[1]), sys.argv[2:])
