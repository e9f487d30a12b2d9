"""Converts the forms in which exporters write a network to those that the patterns name.

Each step keeps the computed function, counts its changes, and finds nothing to do on its own result. Steps rewrite the
outer graph, as the transformations do; the tensors that nested bodies read stay defined. docs/use/preparation.md
describes them.
"""

from onnxgraft.errors import PreparationError
from onnxgraft.preparation.running import prepare, step_names
from onnxgraft.preparation.steps import STEPS, Step

__all__ = ["STEPS", "PreparationError", "Step", "prepare", "step_names"]
