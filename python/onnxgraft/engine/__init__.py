"""The engine that runs transformations over a model: steps, reports, undoing failed steps.

Command line and API are thin layers over `rewrite`.
"""

from onnxgraft.engine.failure import TransformationError
from onnxgraft.engine.rewriting import rewrite
from onnxgraft.io.weight_store import WeightStore
from onnxgraft.report.records import NodeText, Occurrence, PatternResult, PreparationStep, Report, Step

__all__ = [
    "NodeText",
    "Occurrence",
    "PatternResult",
    "PreparationStep",
    "Report",
    "Step",
    "TransformationError",
    "WeightStore",
    "rewrite",
]
