"""A few expressions that are never right in this project's English do not come back, in pages and in sources."""

import re
from collections.abc import Iterator
from pathlib import Path

import pytest

# What to look for, and what to write instead. Texts are searched with line breaks as blanks.
NEVER = {
    r"(?<!leave one )(?<!leave it )(?<!leaves )(?<!left )\bbehind\b": "after",
    r"\bin front of\b": "before",
    r"\bat the begin\b": "at the start",
    r"\bwhoever\b": "if you, users who",
    r"(?<![Tt]here )\b(?:is|are|was|were) no (?!longer\b|more\b|less\b|fewer\b|better\b|worse\b)[\w`']": "is not a",
    r"\bwhere it may\b": "if it can",
    r"\banew\b": "again",
    r"\b(?:is|are) taken for\b": "is treated as",
    r"\b(?:thereby|thereof|hence)\b": "so",
    r"\b(?:can|do|does|did|is|are|was|were|has|have|had|should|would|could|wo|must)n't\b": "no contractions",
    r"\bnobody\b": "name who does not",
}
FOLDERS = ("docs", "python", "src", "tests", "tools", "bench", "examples", "cmake")
PROSE = {".md", ".py", ".pyi", ".cpp", ".h", ".toml", ".css", ".js", ".txt", ".cmake"}


def pages(repository: Path) -> Iterator[Path]:
    yield from (path for path in repository.iterdir() if path.suffix in PROSE or path.name == "Makefile")
    for folder in FOLDERS:
        yield from (
            path for path in (repository / folder).rglob("*") if path.suffix in PROSE and path != Path(__file__)
        )


def wrong(text: str) -> Iterator[str]:
    flat = re.sub(r'\s*\n\s*(?:#+|//+|\*|")?\s*', " ", text)
    for expression, instead in NEVER.items():
        for found in re.finditer(expression, flat):
            yield f"... {flat[max(0, found.start() - 40) : found.end() + 20]} ...: {instead}"


def test_no_page_or_source_has_them(repository: Path) -> None:
    found = {str(path.relative_to(repository)): list(wrong(path.read_text())) for path in pages(repository)}
    assert len(found) > 400
    assert {name: texts for name, texts in found.items() if texts} == {}


@pytest.mark.parametrize(
    ("text", "count"),
    [
        ("expected ':' behind the name", 1),
        ("a Mul in\n    # front of a Relu", 1),
        ("node 3 is no Conv", 1),
        ("there is no Conv, which is no longer true, and nothing is left behind", 0),
    ],
)
def test_the_expressions_find_what_they_should(text: str, count: int) -> None:
    assert len(list(wrong(text))) == count
