"""Completes what the transformations leave open, after each step of a run.

The classes write what their patterns say and no more: `delete_concat` gives both branches the whole weight,
`fuse_bn_quant` a bias that may be too short, and none says of which type its tensors are. A run with `rewrite` or
`onnxgraft apply` goes on from there, so that its result can be computed.
"""

from onnxgraft.finishing.operator_numbers import operator_numbers
from onnxgraft.finishing.order import followers

__all__ = ["followers", "operator_numbers"]
