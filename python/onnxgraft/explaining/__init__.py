"""Why something was not replaced: for patterns over the whole graph, and for single nodes."""

from onnxgraft.explaining.asking import explain, explain_in_turn
from onnxgraft.explaining.node_answers import NodeAnswer, NodeExplanation
from onnxgraft.explaining.turns import Turns

__all__ = ["NodeAnswer", "NodeExplanation", "Turns", "explain", "explain_in_turn"]
