"""Draws every (pattern, replacement) pair of every transformation into docs/pictures/.

    python -m tools.draw_rewrites [--check]

The pictures come from the class attributes alone. `--check` writes nothing and ends with 1 if a picture is missing, out
of date or no longer used.
"""

from __future__ import annotations

import argparse
import sys
from pathlib import Path

from onnxgraft.catalogue import rows
from onnxgraft.drawing.pair_picture import draw
from onnxgraft.drawing.pattern_pair import read_pair

FOLDER = Path("docs/pictures")


def pictures() -> dict[str, str]:
    """File name -> SVG. Transformations that run the same pairs share the pictures of the first one."""
    drawn: dict[str, str] = {}
    seen = set()
    for name, transformation in rows().items():
        if transformation.pairs not in seen:
            seen.add(transformation.pairs)
            for number, pair in enumerate(transformation.pairs, 1):
                title = f"{name}, pair {number}: {' '.join(pair[0])}  =>  {' '.join(pair[1])}"
                drawn[f"{name}_{number}.svg"] = draw(title, *read_pair(*pair))
    return drawn


def main(arguments: list[str]) -> int:
    """Runs the command; returns the exit code."""
    parser = argparse.ArgumentParser(prog="draw_rewrites", description=__doc__.splitlines()[0])
    parser.add_argument("--check", action="store_true", help="only report what is out of date")
    check = parser.parse_args(arguments).check
    made = pictures()
    FOLDER.mkdir(parents=True, exist_ok=True)
    there = {path.name: path.read_text() for path in FOLDER.glob("*.svg")}
    old = sorted(name for name in made.keys() | there.keys() if made.get(name) != there.get(name))
    for name in old:
        print(f"{'out of date' if check else 'wrote' if name in made else 'removed'}: {FOLDER / name}")
        if not check and name in made:
            (FOLDER / name).write_text(made[name])
        elif not check:
            (FOLDER / name).unlink()
    return 1 if old and check else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
