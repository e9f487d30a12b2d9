"""The structural differences of two models, found from the models alone.

No data is loaded: external tensors are compared by their location, others by a digest of their bytes.
"""

from onnxgraft.comparison.diffing import diff
from onnxgraft.comparison.result import GraphDiff, NodeChange, Region, RegionSide, ValueChange

__all__ = ["GraphDiff", "NodeChange", "Region", "RegionSide", "ValueChange", "diff"]
