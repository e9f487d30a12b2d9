"""Families of example models: which files belong to them and by which words the classes name them."""

from __future__ import annotations

from collections.abc import Iterable
from dataclasses import dataclass

from onnxgraft.catalogue import Transformation


@dataclass(frozen=True)
class Family:
    """One heading of the table."""

    title: str
    prefixes: tuple[str, ...]


FAMILIES = (
    Family("YOLO", ("yolo",)),
    Family("U2Net", ("u2net",)),
    Family("Squeeze and excitation", ("efficientnet", "seresnet", "mobilenet")),
    Family("ResNet", ("resnet",)),
    Family("BERT", ("bert",)),
)

# What a file's name begins with -> the words in "prepared for". A longer prefix wins.
_WORDS = {
    "yolov5": ("YOLO", "YOLO5s1"),
    "yolov7": ("YOLO", "YOLOv7"),
    "yolov7x": ("YOLO", "YOLOv7", "YOLOV7X"),
    "u2net": ("U2Net",),
    "efficientnetb0": ("EfficientNetB0",),
    "seresnet": ("SeResNet",),
    "mobilenetv3": ("MobileNetv3",),
    "resnet": ("ResNet",),
    "bert": ("BERT",),
}


def family_of(model: str) -> Family:
    """The family of a file's stem."""
    for family in FAMILIES:
        if model.startswith(family.prefixes):
            return family
    raise ValueError(f"{model} belongs to no family; the known ones begin with {', '.join(_WORDS)}")


def prepared_for(model: str, candidates: Iterable[Transformation]) -> list[str]:
    """Short names of the candidates whose class names the model's network."""
    prefix = max((p for p in _WORDS if model.startswith(p)), key=len)
    words = {word.lower() for word in _WORDS[prefix]}
    return [t.name for t in candidates if words & {word.lower() for word in t.prepared_for.split(", ")}]
