"""Entry of the process: `onnxgraft` and `python -m onnxgraft`."""

import signal
import sys

from onnxgraft.cli import main


def _terminate(signal_number: int, _frame: object) -> None:
    # As an exception, so that what is half-written is cleared away on the way out.
    sys.exit(128 + signal_number)


def run() -> None:
    """Runs the command line on the arguments of the process and exits with its code."""
    signal.signal(signal.SIGTERM, _terminate)
    sys.exit(main())


if __name__ == "__main__":
    run()
