"""`make bench`, or `make bench GROUP=peers` for some groups; `make bench-docs` for all, and for the page in docs/."""

from __future__ import annotations

import sys

from bench.program import main

if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
