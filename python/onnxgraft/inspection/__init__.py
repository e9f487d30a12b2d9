"""The main facts about a model, and the recipes that would replace most in it."""

from onnxgraft.inspection.inspecting import inspect
from onnxgraft.inspection.ranking import LARGEST, RecipeScore, rank_recipes
from onnxgraft.inspection.result import Inspection

__all__ = ["LARGEST", "Inspection", "RecipeScore", "inspect", "rank_recipes"]
