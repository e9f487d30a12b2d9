"""The followers that run after each step, in order."""

from __future__ import annotations

from onnxgraft.finishing.bias_lengths import BringBiasesToLength
from onnxgraft.finishing.concat_weights import SplitWeights
from onnxgraft.finishing.declared_types import DeclareTypes
from onnxgraft.finishing.float_widths import MatchFloatWidths
from onnxgraft.finishing.function_remarks import RemarkOnFunction
from onnxgraft.finishing.listed_initializers import ListInitializers
from onnxgraft.following import Follower, Host


def followers(host: Host, *, finish: bool) -> list[Follower]:
    """The followers of a run that is about to start.

    Args:
        host: The graph, prepared.
        finish: Whether to finish weights and biases; the other followers only describe the graph and always run.
    """
    completing: list[Follower] = [SplitWeights(), BringBiasesToLength(), MatchFloatWidths()] if finish else []
    return [*completing, RemarkOnFunction(finish=finish), DeclareTypes(host), ListInitializers(host)]
