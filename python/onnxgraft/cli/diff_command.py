"""`onnxgraft diff`: what is different between two graphs."""

from __future__ import annotations

import argparse

from onnxgraft.cli import consoles
from onnxgraft.cli.text_output import TextOutput
from onnxgraft.comparison import diff
from onnxgraft.comparison.diff_page import diff_page
from onnxgraft.io import model_files


def run(options: argparse.Namespace) -> int:
    """Shows the difference as text and, with `--html`, as a page."""
    with TextOutput(options.html, overwrite=options.force) as page:
        difference = diff(model_files.load(options.before), model_files.load(options.after))
        if page.is_wanted:
            page.write(diff_page(difference))
    consoles.say(str(difference))
    if options.html is not None:
        consoles.say(f"wrote {options.html}")
    return 0
