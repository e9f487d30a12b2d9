"""The engine that runs transformations over a model: steps, reports, put-back of what failed.

Command line and API are thin layers over `rewrite`.
"""

from onnxgraft.engine.report import NodeText, Occurrence, PatternResult, PreparationStep, Report, Step
from onnxgraft.engine.rewriting import rewrite
from onnxgraft.engine.weight_store import WeightStore

__all__ = [
    "NodeText",
    "Occurrence",
    "PatternResult",
    "PreparationStep",
    "Report",
    "Step",
    "WeightStore",
    "rewrite",
]
