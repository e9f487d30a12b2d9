"""Do two models compute the same? Both are evaluated on the same random inputs, and their outputs compared.

docs/use/verify-and-diff.md says how, and what a failure means.
"""

from onnxgraft.errors import VerificationError
from onnxgraft.verification.accuracy import Accuracy
from onnxgraft.verification.measuring import measure
from onnxgraft.verification.result import OutputRow, Verification
from onnxgraft.verification.verifying import verify

__all__ = ["Accuracy", "OutputRow", "Verification", "VerificationError", "measure", "verify"]
