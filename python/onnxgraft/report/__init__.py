"""The record of a run: as data, as JSON text, as a table and as a self-contained page.

Every text from a model is escaped in a page, and a policy in it forbids scripts other than its own.
"""

from onnxgraft.report.records import NodeText, Occurrence, PatternResult, PreparationStep, Report, Step

__all__ = ["NodeText", "Occurrence", "PatternResult", "PreparationStep", "Report", "Step"]
