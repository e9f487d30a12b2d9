"""Families of example models: their files, their recipe and the name that the classes use for them."""

from __future__ import annotations

from collections.abc import Iterable
from dataclasses import dataclass

from onnxgraft.catalogue import Transformation


@dataclass(frozen=True)
class Family:
    """One heading of the tables."""

    title: str
    prefixes: tuple[str, ...]


@dataclass(frozen=True)
class Network:
    """The facts about the files whose names start with `prefix`."""

    prefix: str
    recipe: str
    words: frozenset[str]  # in "prepared for", in lower case


FAMILIES = (
    Family("YOLO", ("yolov5", "yolov7")),
    Family("U2Net", ("u2net",)),
    Family("Squeeze and excitation", ("efficientnet", "seresnet", "mobilenet")),
    Family("ResNet", ("resnet",)),
    Family("BERT", ("bert",)),
    Family("YOLOv8", ("yolov8",)),
    Family("YOLOX", ("yolox",)),
    Family("DenseNet", ("densenet",)),
    Family("GhostNet", ("ghostnet",)),
    Family("RegNet", ("regnet",)),
    Family("ConvNeXt and ViT", ("convnext", "vit")),
    Family("DeepLab", ("deeplab",)),
    Family("HRNet", ("hrnet",)),
)

# The longest prefix wins.
_NETWORKS = (
    Network("yolov5", "yolov5", frozenset({"yolo", "yolo5s1"})),
    Network("yolov7", "yolov7", frozenset({"yolo", "yolov7"})),
    Network("yolov7x", "yolov7", frozenset({"yolo", "yolov7", "yolov7x"})),
    Network("u2net", "u2net", frozenset({"u2net"})),
    Network("efficientnetb0", "efficientnet", frozenset({"efficientnetb0"})),
    Network("seresnet", "seresnet", frozenset({"seresnet"})),
    Network("mobilenetv3", "mobilenetv3", frozenset({"mobilenetv3"})),
    Network("resnet", "resnet", frozenset({"resnet"})),
    Network("bert", "bert", frozenset({"bert"})),
    Network("yolov8", "yolov8", frozenset({"yolo"})),
    Network("yolox", "yolox", frozenset({"yolo"})),
    *(
        Network(name, name, frozenset())
        for name in ("densenet", "ghostnet", "regnet", "convnext", "vit", "deeplab", "hrnet")
    ),
)


def family_of(model: str) -> Family:
    """The family of a file's stem."""
    return next(family for family in FAMILIES if model.startswith(family.prefixes))


def network_of(model: str) -> Network:
    """The known facts about a file's stem.

    Raises:
        ValueError: The name starts with no known prefix.
    """
    fitting = [network for network in _NETWORKS if model.startswith(network.prefix)]
    if not fitting:
        known = ", ".join(network.prefix for network in _NETWORKS)
        raise ValueError(f"{model} does not belong to a family; the names of models start with {known}")
    return max(fitting, key=lambda network: len(network.prefix))


def prepared_for(model: str, candidates: Iterable[Transformation]) -> list[str]:
    """Short names of the candidates whose class names the model's network."""
    words = network_of(model).words
    return [t.name for t in candidates if words & set(t.prepared_for.lower().split(", "))]
