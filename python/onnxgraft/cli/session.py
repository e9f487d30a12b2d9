"""What happens before each command: how much is said, which users' files are loaded."""

from __future__ import annotations

import argparse
import logging
import sys

from onnxgraft import catalogue
from onnxgraft.cli import consoles

_LEVELS = (logging.WARNING, logging.INFO, logging.DEBUG)


class _Handler(logging.StreamHandler):  # type: ignore[type-arg]
    """Writes to what `sys.stderr` is at that moment."""

    def __init__(self) -> None:
        super().__init__(sys.stderr)
        self.setFormatter(_OneLine())


class _OneLine(logging.Formatter):
    def format(self, record: logging.LogRecord) -> str:
        kind = "" if record.levelno < logging.WARNING else f"{record.levelname.lower()}: "
        return f"onnxgraft: {kind}{' '.join(record.getMessage().splitlines())}"


def begin(options: argparse.Namespace) -> None:
    """Sets up messages and imports what `--load` names.

    Raises:
        HostError: A file of the user cannot be loaded.
    """
    logger = logging.getLogger("onnxgraft")
    for handler in [handler for handler in logger.handlers if isinstance(handler, _Handler)]:
        logger.removeHandler(handler)
    logger.addHandler(_Handler())
    logger.setLevel(logging.ERROR if options.quiet else _LEVELS[min(options.verbose, len(_LEVELS) - 1)])
    consoles.set_quiet(options.quiet)
    for path in getattr(options, "rule_file", ()):
        catalogue.load_rule_file(path)
    for name in options.load:
        catalogue.load_user_code(name)
