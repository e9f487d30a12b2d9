"""The command line: options, commands and what they show. The work itself is done by the modules beside this package.

Exit codes: 0 done, 1 failed (nothing was written), 2 wrong usage or unknown name, 3 `verify` found a difference,
4 nothing was replaced (with `--fail-if-unchanged`), 130 interrupted.
"""

from __future__ import annotations

import importlib
import os
import sys
import traceback
from collections.abc import Sequence

from onnxgraft.cli.options import WRONG_USAGE
from onnxgraft.cli.parser import parse
from onnxgraft.errors import HostError, WrongUsageError

FAILED = 1
INTERRUPTED = 130


def main(arguments: Sequence[str] | None = None) -> int:
    """Runs the command line on `arguments` (those of the process by default); returns the exit code."""
    options = parse(arguments)
    try:
        # Loaded only now: ONNX takes half a second, which `--help` and wrong usage need not wait for.
        session = importlib.import_module("onnxgraft.cli.session")
        command = importlib.import_module(f"onnxgraft.cli.{options.command}_command")
        session.begin(options)
        code: int = command.run(options)
        sys.stdout.flush()
    except BrokenPipeError:
        # Whoever reads our output has seen enough. What is still buffered must not fail once more at exit.
        os.dup2(os.open(os.devnull, os.O_WRONLY), sys.stdout.fileno())
        return FAILED
    except (Exception, KeyboardInterrupt) as error:
        code, message = _verdict(error)
        if options.verbose:
            traceback.print_exception(error, file=sys.stderr)
        # One line, even if a file name has line breaks.
        print(f"onnxgraft: error: {' '.join(message.splitlines())}", file=sys.stderr)
    return code


def _verdict(error: BaseException) -> tuple[int, str]:
    """The exit code and the message."""
    match error:
        case WrongUsageError():
            return WRONG_USAGE, str(error)
        case HostError():
            return FAILED, str(error)
        case MemoryError():
            return FAILED, "out of memory; nothing was written"
        case KeyboardInterrupt():
            return INTERRUPTED, "interrupted; nothing was written"
        case _:
            return FAILED, f"unexpected {type(error).__name__}: {error} (-v shows where)"
