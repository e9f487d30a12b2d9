"""Stand-ins for messages and lists that raise at their n-th use of any kind, before or after its effect."""

from collections.abc import Callable, Iterator
from typing import Any

from onnx import TensorProto


class FaultError(Exception):
    """The error that a use raises."""


class Uses:
    """Counts uses of all proxies; the n-th raises, later ones do not."""

    def __init__(self, fail_at: int, *, after: bool = False) -> None:
        self.left = fail_at
        self.after = after
        self.proxies: dict[int, Proxy] = {}

    def use(self, effect: Callable[[], Any]) -> Any:
        """One use."""
        self.left -= 1
        fails = self.left == 0
        if fails and not self.after:
            raise FaultError
        result = effect()
        if fails:
            raise FaultError
        return result

    def wrap(self, value: Any) -> Any:
        """The proxy of a message or a list, always the same; a counting function for a method."""
        if value is None or isinstance(value, str | int | float | bytes):
            return value
        if callable(value) and not hasattr(value, "DESCRIPTOR"):
            return lambda *args, **kwargs: self._call(value, args, kwargs)
        known = self.proxies.get(id(value))
        if known is None or known._value is not value:
            known = self.proxies[id(value)] = Proxy(self, value)
        return known

    def _call(self, method: Any, args: tuple[Any, ...], kwargs: dict[str, Any]) -> Any:
        if key := kwargs.get("key"):
            kwargs = {"key": lambda element: key(self.wrap(element))}
        return self.wrap(self.use(lambda: method(*map(_real, args), **kwargs)))


def _real(value: Any) -> Any:
    """The object of a proxy, or the objects of those in a list."""
    if isinstance(value, list | tuple):
        return [_real(element) for element in value]
    return value._value if isinstance(value, Proxy) else value


def _counted(name: str) -> Any:
    """A use of a list, counted and forwarded."""

    def method(self: Any, *arguments: Any) -> Any:
        return self._uses.wrap(self._uses.use(lambda: getattr(self._value, name)(*arguments)))

    return method


class Proxy:
    """Forwards every use to the real object."""

    __slots__ = ("_uses", "_value")
    _uses: Uses
    _value: Any

    def __init__(self, uses: Uses, value: Any) -> None:
        object.__setattr__(self, "_uses", uses)
        object.__setattr__(self, "_value", value)

    def __getattr__(self, name: str) -> Any:
        value = self._uses.use(lambda: getattr(self._value, name))
        # NumPy reads tensor contents, and answers a failing list with an error of its own.
        return value if isinstance(self._value, TensorProto) else self._uses.wrap(value)

    def __setattr__(self, name: str, value: Any) -> None:
        self._uses.use(lambda: setattr(self._value, name, value))

    __len__ = _counted("__len__")
    __getitem__ = _counted("__getitem__")
    __setitem__ = _counted("__setitem__")
    __delitem__ = _counted("__delitem__")

    def __iter__(self) -> Iterator[Any]:
        for element in self._uses.use(lambda: list(self._value)):
            self._uses.use(lambda: None)
            yield self._uses.wrap(element)
