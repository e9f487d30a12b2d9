"""Counts how often each transformation fires on exported models; writes the tables of docs/development/models.md.

    python -m tools.firing_table [FOLDER] [--check]

The counts are kept in docs/development/firing.json, a row per file. A run replaces the rows of the files in FOLDER
(default examples/models) and leaves the others, so the tables can hold models that do not ship. `--check` writes
nothing and ends with 1 if something is out of date.
"""

from __future__ import annotations

import argparse
import json
import logging
import sys
from dataclasses import asdict, replace
from pathlib import Path
from typing import Any

from tools.models.coverage import coverage
from tools.models.firing import losses, measure, run_recipe
from tools.models.tables import render

DATA = Path("docs/development/firing.json")
PAGE = Path("docs/development/models.md")
BEGIN, END = "<!-- tables: begin (made by make docs) -->", "<!-- tables: end -->"

Rows = dict[str, Any]


def rows_of(folder: Path) -> Rows:
    """The rows of all models in a folder, by the stem of the file."""
    rows: Rows = {}
    for path in sorted(folder.glob("*.onnx")):
        exported, prepared = (measure(path, prepared=whether) for whether in (False, True))
        row = {
            "exported": asdict(replace(exported, misses={})),
            "prepared": asdict(prepared),
            "losses": losses(path, prepared),
            "recipe": asdict(run_recipe(path)),
            "coverage": coverage(path),
        }
        rows[path.stem] = json.loads(json.dumps(row))  # lists, as JSON returns them
    return rows


def page_with(text: str, rows: Rows) -> str:
    """`text` with the tables of `rows` between the two marks."""
    before, rest = text.split(BEGIN)
    return f"{before}{BEGIN}\n\n{render(rows)}\n{END}{rest.split(END)[1]}"


def main(arguments: list[str]) -> int:
    """Runs the command; returns the exit code."""
    parser = argparse.ArgumentParser(prog="firing_table", description=__doc__.splitlines()[0])
    parser.add_argument("folder", nargs="?", type=Path, default=Path("examples/models"))
    parser.add_argument("--check", action="store_true", help="only report what is out of date")
    options = parser.parse_args(arguments)
    logging.getLogger("onnxgraft").addHandler(logging.NullHandler())  # the tables contain failures
    known: Rows = json.loads(DATA.read_text()) if DATA.exists() else {}
    rows = dict(sorted((known | rows_of(options.folder)).items()))
    made = {DATA: json.dumps(rows, indent=1) + "\n", PAGE: page_with(PAGE.read_text(), rows)}
    old = [path for path, text in made.items() if not path.exists() or path.read_text() != text]
    for path in old:
        print(f"{'out of date' if options.check else 'wrote'}: {path}")
        if not options.check:
            path.write_text(made[path])
    return 1 if old and options.check else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
