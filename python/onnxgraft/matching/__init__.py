"""Where patterns match a graph, and why they do not, as data. Nothing here changes a graph."""

from onnxgraft.matching.explaining import Explanation, explain
from onnxgraft.matching.finding import Match, find
from onnxgraft.matching.pattern_text import NoPatternError, PatternText, pattern_of
from onnxgraft.matching.subject import Subject, subject_of

__all__ = [
    "Explanation",
    "Match",
    "NoPatternError",
    "PatternText",
    "Subject",
    "explain",
    "find",
    "pattern_of",
    "subject_of",
]
