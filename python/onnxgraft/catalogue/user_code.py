"""Imports a user's Python file or module from any folder."""

from __future__ import annotations

import importlib.machinery
import importlib.util
import re
import sys
from collections.abc import Iterator
from contextlib import contextmanager
from pathlib import Path

from onnxgraft.errors import RegistrationError


def import_user_code(path_or_module: str) -> None:
    """Imports a `.py` file or a module.

    Raises:
        RegistrationError: It could not be imported; the message gives the reason.
    """
    path = Path(path_or_module)
    is_file = path.suffix == ".py" or path.is_file()
    if is_file and not path.is_file():
        raise RegistrationError(f"cannot load '{path}': there is no such file")
    try:
        with _first_on_path(path.resolve().parent if is_file else Path.cwd()):
            if is_file:
                _run(path.resolve())
            else:
                importlib.import_module(path_or_module)
    except (Exception, SystemExit) as error:  # any error of foreign code
        reason = " ".join(str(error).split()) or "no reason given"
        raise RegistrationError(f"cannot load '{path_or_module}': {type(error).__name__}: {reason}") from error


def _run(path: Path) -> None:
    # The name comes from the whole path: files of the same name in two folders are two modules.
    name = "onnxgraft_loaded" + re.sub(r"\W", "_", str(path.with_suffix("")))
    loader = importlib.machinery.SourceFileLoader(name, str(path))
    module = importlib.util.module_from_spec(importlib.machinery.ModuleSpec(name, loader, origin=str(path)))
    module.__file__ = str(path)
    sys.modules[name] = module
    try:
        loader.exec_module(module)
    except BaseException:
        del sys.modules[name]
        raise


@contextmanager
def _first_on_path(folder: Path) -> Iterator[None]:
    sys.path.insert(0, str(folder))
    try:
        yield
    finally:
        if str(folder) in sys.path:
            sys.path.remove(str(folder))
