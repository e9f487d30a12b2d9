"""What one wants to know first about a model, and which recipe would do most for it."""

from onnxgraft.inspection.inspecting import inspect
from onnxgraft.inspection.ranking import LARGEST, RecipeScore, rank_recipes
from onnxgraft.inspection.result import Inspection

__all__ = ["LARGEST", "Inspection", "RecipeScore", "inspect", "rank_recipes"]
