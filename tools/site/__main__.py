"""Builds the documentation as a site that works offline, from file:// too: build/site/index.html.

    make site

The pages of the repository are written for any Markdown reader. What MkDocs reads differently is changed in a copy,
build/site-source/. MkDocs checks the links. This tool replaces the one script that the theme would fetch from a
network, and fails if the result would fetch anything else.
"""

from __future__ import annotations

import os
import re
import shutil
import subprocess
import sys
from collections.abc import Iterator
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]
SOURCE, RESULT = ROOT / "build/site-source", ROOT / "build/site"
SEARCH = Path(__file__).with_name("offline_search.js")
_FETCHED_SEARCH = "https://unpkg.com/iframe-worker/shim"
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


def use_own_search() -> None:
    """Makes every page load `offline_search.js` from the site."""
    shutil.copy(SEARCH, RESULT / "assets" / SEARCH.name)
    for page in RESULT.rglob("*.html"):
        up = "../" * (len(page.relative_to(RESULT).parts) - 1)
        page.write_text(page.read_text().replace(_FETCHED_SEARCH, f"{up}assets/{SEARCH.name}"))


def fetched() -> Iterator[str]:
    """Addresses in a network from which the site would load something."""
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
    if code := subprocess.run(command, cwd=ROOT, env=os.environ | {"NO_MKDOCS_2_WARNING": "1"}).returncode:
        return code
    use_own_search()
    if outside := list(fetched()):
        print("The site would fetch from a network:", *outside, sep="\n  ", file=sys.stderr)
        return 1
    print(f"wrote {RESULT.relative_to(ROOT)}/index.html, {len(list(RESULT.rglob('*.html')))} pages")
    return 0


if __name__ == "__main__":
    sys.exit(main())
