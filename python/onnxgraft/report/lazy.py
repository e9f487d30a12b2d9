"""Records whose fields are computed when first read: recording an event must cost little."""

from __future__ import annotations

from collections.abc import Callable
from typing import Any, TypeVar

_UNREAD = "_unread"
_Record = TypeVar("_Record", bound="Lazy")


class Lazy:
    """Base of frozen dataclasses that can be made with `later`.

    A field with a plain default is a class attribute and would never count as missing. Give such fields to `later` at
    once, or use a default factory.
    """

    @classmethod
    def later(
        cls: type[_Record], make: Callable[..., dict[str, Any]], arguments: tuple[Any, ...], **fields: Any
    ) -> _Record:
        """A record of `fields`, and of those that `make(*arguments)` returns on first access to one of them."""
        record = object.__new__(cls)
        own = vars(record)
        own.update(fields)
        own[_UNREAD] = make, arguments
        return record

    def __getattr__(self, name: str) -> Any:
        # Called for attributes that are not set, so also for those that `copy` and `pickle` try.
        own = vars(self)
        if _UNREAD not in own or name.startswith("__"):
            raise AttributeError(f"{type(self).__name__!r} object has no attribute {name!r}")
        make, arguments = own.pop(_UNREAD)
        own.update(make(*arguments))
        return getattr(self, name)
