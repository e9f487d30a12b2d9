"""Do two models compute the same? Both are evaluated on the same random inputs, and their outputs compared.

docs/verify-and-diff.md describes the method and the meaning of a failure.
"""

from onnxgraft.errors import VerificationError
from onnxgraft.verification.accuracy import Accuracy
from onnxgraft.verification.measuring import measure
from onnxgraft.verification.result import OutputRow, Verification
from onnxgraft.verification.verifying import verify

__all__ = ["Accuracy", "OutputRow", "Verification", "VerificationError", "measure", "verify"]
