"""Reports and differences as pages: one self-contained file each, which loads nothing from anywhere.

Every text from a model is escaped, and a policy in the page forbids scripts other than its own.
"""

from onnxgraft.html.diff_page import diff_page
from onnxgraft.html.report_page import report_page

__all__ = ["diff_page", "report_page"]
