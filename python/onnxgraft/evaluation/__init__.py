"""Evaluates models with quantized operators through public evaluators.

No public evaluator knows `TesselQuant` and `TesselDequant`, and none computes INT8 `Conv` with wide sums. So a model is
first *lowered*: the copy holds only standard operators on floating-point tensors, whose values are the integers that
the quantized operators would compute with. docs/evaluation.md lists the formulas.
"""

from onnxgraft.errors import EvaluationError
from onnxgraft.evaluation.answering import answer
from onnxgraft.evaluation.convention import HARDWARE, Convention
from onnxgraft.evaluation.forward import ForwardRunner
from onnxgraft.evaluation.lowering import lower
from onnxgraft.evaluation.quantize_linear import lower_to_qdq
from onnxgraft.evaluation.running import evaluate

__all__ = ["HARDWARE", "Convention", "EvaluationError", "ForwardRunner", "answer", "evaluate", "lower", "lower_to_qdq"]
