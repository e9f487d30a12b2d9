"""The command line: options, commands and what they show. The work itself is done by the modules beside this package.

Exit codes: 0 done, 1 failed (nothing was written), 2 wrong usage or unknown transformation.
"""

from __future__ import annotations

import sys
from collections.abc import Sequence

from onnxgraft.cli.options import WRONG_USAGE, make_parser
from onnxgraft.errors import HostError, UnknownTransformationError

FAILED = 1
INTERRUPTED = 130


def main(arguments: Sequence[str] | None = None) -> int:
    """Runs the command line on `arguments` (those of the process by default); returns the exit code."""
    options = make_parser().parse_args(arguments)
    try:
        # Loaded only now: ONNX takes half a second, which `--help` and wrong usage need not wait for.
        if options.command == "list":
            from onnxgraft.cli.list_command import run  # noqa: PLC0415
        else:
            from onnxgraft.cli.apply_command import run  # noqa: PLC0415
        run(options)
    except UnknownTransformationError as error:
        return _fail(str(error), WRONG_USAGE)
    except HostError as error:
        return _fail(str(error), FAILED)
    except MemoryError:
        return _fail("out of memory; nothing was written", FAILED)
    except KeyboardInterrupt:
        return _fail("interrupted; nothing was written", INTERRUPTED)
    return 0


def _fail(message: str, code: int) -> int:
    # One line, even if a file name has line breaks.
    print(f"onnxgraft: error: {' '.join(message.splitlines())}", file=sys.stderr)
    return code
