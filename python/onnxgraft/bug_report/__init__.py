"""The contents of a bug report, without the weights: the graph with shapes only, versions, a command and its output."""

from onnxgraft.bug_report.collecting import collected
from onnxgraft.bug_report.graph_text import read_graph
from onnxgraft.bug_report.shapes_only import shapes_only

__all__ = ["collected", "read_graph", "shapes_only"]
