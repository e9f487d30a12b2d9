"""Completes what the transformations leave open, after each step of a run.

The classes write what their patterns state and no more: `delete_concat` gives both branches the whole weight,
`fuse_bn_quant` writes a bias that may be too short, and none records the types of its tensors. A run with `rewrite` or
`onnxgraft apply` completes this, so that its result can be computed.
"""

from onnxgraft.finishing.operator_numbers import operator_numbers
from onnxgraft.finishing.order import followers

__all__ = ["followers", "operator_numbers"]
