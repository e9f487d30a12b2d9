"""Entry of the process: `onnxgraft` and `python -m onnxgraft`."""

import os
import signal
import sys
from contextlib import suppress

from onnxgraft.cli import main


def _terminate(signal_number: int, _frame: object) -> None:
    # As an exception, so that half-written files are removed on the way out.
    sys.exit(128 + signal_number)


def run() -> None:
    """Runs the command line on the arguments of the process and exits with its code."""
    for number in (signal.SIGTERM, signal.SIGHUP):
        # A signal that is ignored from outside stays ignored: `nohup` ignores SIGHUP.
        if signal.getsignal(number) is not signal.SIG_IGN:
            signal.signal(number, _terminate)
    _hold_closed_streams()
    sys.exit(main())


def _hold_closed_streams() -> None:
    """Occupies the numbers of closed standard streams, so that no file opened later gets one of them."""
    with suppress(OSError):
        while (handle := os.open(os.devnull, os.O_RDWR)) <= 2:
            pass
        os.close(handle)


if __name__ == "__main__":
    run()
