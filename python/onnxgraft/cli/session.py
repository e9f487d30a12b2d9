"""The start of each command: sets up the amount of messages and loads users' files."""

from __future__ import annotations

import argparse
import logging
from collections.abc import Iterator
from contextlib import contextmanager

from onnxgraft import catalogue
from onnxgraft.cli import consoles

_LEVELS = (logging.WARNING, logging.INFO, logging.DEBUG)


class _Handler(logging.Handler):
    """One line on standard error for each message."""

    def emit(self, record: logging.LogRecord) -> None:
        kind = "" if record.levelno < logging.WARNING else f"{record.levelname.lower()}: "
        consoles.error(kind + record.getMessage())


@contextmanager
def running(options: argparse.Namespace) -> Iterator[None]:
    """Sets up messages, imports what `--load` names, and removes the set-up at the end.

    Raises:
        HostError: A file of the user cannot be loaded.
    """
    logger, handler = logging.getLogger("onnxgraft"), _Handler()
    level = logger.level
    logger.addHandler(handler)
    logger.setLevel(logging.ERROR if options.quiet else _LEVELS[min(options.verbose, len(_LEVELS) - 1)])
    consoles.set_quiet(options.quiet)
    try:
        for path in getattr(options, "rule_file", ()):
            catalogue.load_rule_file(path)
        for name in options.load:
            catalogue.load_user_code(name)
        yield
    finally:
        logger.removeHandler(handler)
        logger.setLevel(level)
