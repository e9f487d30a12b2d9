"""Work that is done whole or undone whole, however often the user presses Ctrl-C meanwhile."""

from __future__ import annotations

import signal
import threading
from collections.abc import Callable
from types import FrameType
from typing import Any, TypeVar

_Result = TypeVar("_Result")


def all_or_nothing(run: Callable[[], _Result], undo: Callable[[], None]) -> _Result:
    """Runs the function, and undoes it if anything is raised.

    Signals interrupt the run as usual. Everything after the first error, for instance a second Ctrl-C, waits until
    `undo` has ended.
    """
    signals = _Signals()
    try:
        try:
            signals.take()
            result = run()
            signals.wait = True
            return result
        except BaseException:
            signals.wait = True
            raise
    except BaseException:
        # Nothing interrupts from here on: a signal that came before the line above made later ones wait itself.
        undo()
        raise
    finally:
        signals.give_back()


class _Signals:
    """The signals that have handlers in Python. These run only in the main thread, so other threads need no care."""

    def __init__(self) -> None:
        self.wait = False
        self._is_over = False
        self._handlers: dict[int, Callable[[int, FrameType | None], Any]] = {}
        self._waiting: list[int] = []

    def take(self) -> None:
        if threading.current_thread() is not threading.main_thread():
            return
        for number in signal.valid_signals():
            handler = signal.getsignal(number)
            if callable(handler):
                self._handlers[number] = handler
                signal.signal(number, self._handle)

    def give_back(self) -> None:
        self._is_over = True
        for number, handler in self._handlers.items():
            signal.signal(number, handler)
        for number in self._waiting:
            signal.raise_signal(number)

    def _handle(self, number: int, frame: FrameType | None) -> None:
        if self._is_over:  # a handler that raised may have prevented the restoring of this one
            self._handlers[number](number, frame)
        elif self.wait:
            self._waiting.append(number)
        else:
            self.wait = True  # if the handler raises, the following ones wait
            self._handlers[number](number, frame)
            self.wait = False
