"""An answer for every operator that could be worth quantizing: INT8, or why not."""

from onnxgraft.accounting.accounting import RunFacts, account_of, reasons_in_float
from onnxgraft.accounting.choice import Choice
from onnxgraft.accounting.costs import declared_shapes

__all__ = ["Choice", "RunFacts", "account_of", "declared_shapes", "reasons_in_float"]
