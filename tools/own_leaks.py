"""Fails if a report of LeakSanitizer names this project's sources: `python -m tools.own_leaks FOLDER`.

The interpreter and other extension modules leak much when a process ends; only this project's own leaks count.
"""

from __future__ import annotations

import re
import sys
from pathlib import Path

_OWN = re.compile(r"/src/(?:core|py|quant|abstract_transformation|transform_utilities)/\w+\.(?:cpp|h)|onnxgraft::")
_STACK = re.compile(r"^(?:Direct|Indirect) leak of .*?(?=\n\n|\Z)", re.MULTILINE | re.DOTALL)


def own_leaks(report: str) -> list[str]:
    """The stacks of a report that go through the project's sources."""
    return [stack for stack in _STACK.findall(report) if _OWN.search(stack)]


def main(folder: Path) -> int:
    """Prints the project's own leaks; 1 if there are any, or no report at all."""
    reports = [path.read_text(errors="replace") for path in sorted(folder.iterdir())]
    if not any(_STACK.search(report) for report in reports):
        print(
            f"no report of leaks in {folder}, although the interpreter's own leaks should be reported", file=sys.stderr
        )
        return 1
    leaks = [stack for report in reports for stack in own_leaks(report)]
    print("\n\n".join(leaks) or f"no leaks of this project in {len(reports)} reports")
    return 1 if leaks else 0


if __name__ == "__main__":
    sys.exit(main(Path(sys.argv[1])))
