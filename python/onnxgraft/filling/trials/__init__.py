"""Measures on samples what quantizing costs: which operators cost most, and whether corrected biases help."""

from onnxgraft.filling.trials.choosing import Choice, choose

__all__ = ["Choice", "choose"]
