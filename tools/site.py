"""Builds the documentation as a site that works offline, from file:// too: build/site/index.html.

    make site

The pages of the repository are written for any Markdown reader. What MkDocs reads in another way is changed in a copy,
build/site-source/. Links are checked by MkDocs; here the result is searched for anything that a browser would fetch
from a network.
"""

from __future__ import annotations

import re
import shutil
import subprocess
import sys
from collections.abc import Iterator
from pathlib import Path

ROOT = Path(__file__).resolve().parents[1]
SOURCE, RESULT = ROOT / "build/site-source", ROOT / "build/site"
PAGES = ("README.md", "ARCHITECTURE.md", "CONTRIBUTING.md", "CHANGELOG.md")
_ROW_CODE = re.compile(r"`[^`\n]*`")
_FETCHED = re.compile(
    r"<(?:script|img|iframe|source|link(?![^>]*rel=\"?(?:canonical|next|prev|edit))[^>]*?)\b[^>]*?"
    r"(?:src|href)=[\"']?((?:https?:)?//[^\"'\s>]+)|url\([\"']?((?:https?:)?//[^)\"']+)|@import\s+[\"'](https?:[^\"']+)"
)


def adapted(text: str) -> str:
    """A page as MkDocs has to see it: Markdown inside <details>, and pipes in the code of tables without backslash."""
    text = text.replace("<details>", '<details markdown="1">')
    lines = [
        _ROW_CODE.sub(lambda code: code[0].replace("\\|", "|"), line) if line.startswith("|") else line
        for line in text.splitlines()
    ]
    return "\n".join(lines) + "\n"


def stage() -> None:
    """Copies the pages and pictures to where MkDocs reads them."""
    shutil.rmtree(SOURCE, ignore_errors=True)
    shutil.copytree(ROOT / "docs", SOURCE / "docs", ignore=shutil.ignore_patterns("*.json"))
    for name in PAGES:
        shutil.copy(ROOT / name, SOURCE / name)
    for page in SOURCE.rglob("*.md"):
        page.write_text(adapted(page.read_text()))


def fetched() -> Iterator[str]:
    """What the site would fetch from a network."""
    for path in sorted(RESULT.rglob("*")):
        if path.suffix in {".html", ".css"}:
            for found in _FETCHED.finditer(path.read_text(errors="replace")):
                yield f"{path.relative_to(RESULT)}: {next(filter(None, found.groups()))}"


def main() -> int:
    """Builds the site; returns the exit code."""
    stage()
    command = [
        sys.executable,
        "-m",
        "mkdocs",
        "build",
        "--strict",
        "--quiet",
        "--config-file",
        str(ROOT / "mkdocs.yml"),
    ]
    if code := subprocess.run(command, cwd=ROOT).returncode:
        return code
    if outside := list(fetched()):
        print("The site would fetch from a network:", *outside, sep="\n  ", file=sys.stderr)
        return 1
    print(f"wrote {RESULT.relative_to(ROOT)}/index.html, {len(list(RESULT.rglob('*.html')))} pages")
    return 0


if __name__ == "__main__":
    sys.exit(main())
