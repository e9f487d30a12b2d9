"""`onnxgraft diff`: the differences of two graphs."""

from __future__ import annotations

import argparse

from onnxgraft.cli import claims, consoles, json_output
from onnxgraft.cli.exit_codes import ExitCode
from onnxgraft.cli.text_output import TextOutput
from onnxgraft.comparison import diff
from onnxgraft.comparison.diff_page import diff_page
from onnxgraft.io import model_files
from onnxgraft.report.report_json import to_plain


def run(options: argparse.Namespace) -> int:
    """Shows the difference as text and, with `--html`, as a page."""
    with TextOutput(options.html, overwrite=options.force) as page:
        before, after = model_files.load(options.before), model_files.load(options.after)
        claims.keep_off(options.before, before)
        claims.keep_off(options.after, after)
        difference = diff(before, after, folder_before=options.before.parent, folder_after=options.after.parent)
        if page.is_wanted:
            page.write(diff_page(difference))
    if options.json:
        json_output.show({"is_empty": difference.is_empty, **to_plain(difference)})
    else:
        consoles.tell(str(difference))
        if options.html is not None:
            consoles.say(f"wrote {options.html}")
    return ExitCode.DIFFERENT if options.exit_code and not difference.is_empty else ExitCode.DONE
