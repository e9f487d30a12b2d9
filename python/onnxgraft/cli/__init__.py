"""The command line: options, commands and their output. Other packages do the work itself.

`exit_codes` lists the exit codes. Failing to show something never changes what is done to files.
"""

from __future__ import annotations

import importlib
import traceback
from collections.abc import Sequence
from pathlib import Path

from onnxgraft.cli import claims, streams
from onnxgraft.cli.exit_codes import ExitCode
from onnxgraft.cli.parser import parse
from onnxgraft.errors import HostError, WrongUsageError
from onnxgraft.texts import joined, one_line


def main(arguments: Sequence[str] | None = None) -> int:
    """Runs the command line on `arguments` (those of the process by default); returns the exit code."""
    streams.begin()
    claims.begin()
    verbose = False
    try:
        options = parse(arguments)
        verbose = options.verbose > 0
        # Imported only now: ONNX takes half a second, which `--help` and wrong usage should not cost.
        session = importlib.import_module("onnxgraft.cli.session")
        command = importlib.import_module(f"onnxgraft.cli.{options.command.replace('-', '_')}_command")
        with session.running(options):
            code = int(command.run(options))
    except SystemExit as stop:  # wrong usage, --help, --version, a signal
        code = stop.code if isinstance(stop.code, int) else ExitCode.DONE
    except (Exception, KeyboardInterrupt) as error:
        code, message = _verdict(error)
        if verbose:
            _show_trace(error)
        streams.write_error(f"onnxgraft: error: {joined(message)}")
    streams.flush()
    return _in_view_of_losses(code)


def _verdict(error: BaseException) -> tuple[ExitCode, str]:
    """The exit code and the message."""
    written = claims.in_place()
    what = f"after writing {', '.join(written)}" if written else "nothing was written"
    match error:
        case WrongUsageError():
            return ExitCode.WRONG_USAGE, str(error)
        case KeyboardInterrupt():
            return ExitCode.INTERRUPTED, f"interrupted; {what}"
        case HostError():
            code, text = ExitCode.FAILED, str(error)
        case MemoryError():
            code, text = ExitCode.FAILED, "out of memory; nothing was written"
        case OSError() if not _has_folder():
            code, text = ExitCode.FAILED, "the current folder no longer exists"
        case _:
            code, text = ExitCode.FAILED, f"unexpected {type(error).__name__}: {error} (-v shows where)"
    return (ExitCode.NOT_SHOWN, f"{what}: {text}") if written else (code, text)


def _has_folder() -> bool:
    try:
        return Path.cwd().is_dir()
    except OSError:
        return False


def _show_trace(error: BaseException) -> None:
    """Indented and without control characters, so that no line in it looks like one of ours."""
    for line in "".join(traceback.format_exception(error)).splitlines():
        streams.write_error(f"  {one_line(line)}")


def _in_view_of_losses(code: int) -> int:
    reason = streams.lost()
    if reason is None or code != ExitCode.DONE:
        return code
    if isinstance(reason, BrokenPipeError):
        return ExitCode.BROKEN_PIPE
    streams.write_error(f"onnxgraft: error: done, but cannot write to standard output: {reason.strerror or reason}")
    return ExitCode.NOT_SHOWN
