"""`make bench`, or `make bench GROUP=peers` for some groups; `make bench-docs` for all, and the page about speed."""

from __future__ import annotations

import sys

from bench.program import main

if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
