"""Entry of the process: `onnxgraft` and `python -m onnxgraft`."""

import os
import signal
import sys
from contextlib import suppress

from onnxgraft.cli import main


def _terminate(signal_number: int, _frame: object) -> None:
    # As an exception, so that what is half-written is cleared away on the way out.
    sys.exit(128 + signal_number)


def run() -> None:
    """Runs the command line on the arguments of the process and exits with its code."""
    for number in (signal.SIGTERM, signal.SIGHUP):
        # What is ignored from outside stays so: `nohup` ignores SIGHUP.
        if signal.getsignal(number) is not signal.SIG_IGN:
            signal.signal(number, _terminate)
    _hold_closed_streams()
    sys.exit(main())


def _hold_closed_streams() -> None:
    """Takes the numbers of standard streams that are closed: no file that is opened later may get one of them."""
    with suppress(OSError):
        while (handle := os.open(os.devnull, os.O_RDWR)) <= 2:
            pass
        os.close(handle)


if __name__ == "__main__":
    run()
