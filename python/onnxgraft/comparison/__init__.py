"""What is structurally different between two models, told from the models alone.

No data is loaded for it: external tensors are compared by where they are, others by a digest of their bytes.
"""

from onnxgraft.comparison.diffing import diff
from onnxgraft.comparison.result import GraphDiff, NodeChange, Region, RegionSide, ValueChange

__all__ = ["GraphDiff", "NodeChange", "Region", "RegionSide", "ValueChange", "diff"]
