"""A self-test for transformations: random graphs around the patterns of a class, and checks of every result."""

from onnxgraft.selfcheck.checking import check_transformation
from onnxgraft.selfcheck.result import CheckResult, SelfCheckError
from onnxgraft.selfcheck.rule_check import check_rule

__all__ = ["CheckResult", "SelfCheckError", "check_rule", "check_transformation"]
