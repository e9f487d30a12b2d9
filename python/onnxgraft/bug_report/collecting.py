"""The files of a bug report, as texts: the command, its environment, and its output."""

from __future__ import annotations

import platform
import shlex
import subprocess
import sys
from collections.abc import Mapping, Sequence
from importlib.metadata import PackageNotFoundError, version
from pathlib import Path

from onnx import ModelProto

from onnxgraft.bug_report.graph_text import NAME, graph_text
from onnxgraft.bug_report.shapes_only import Names, shapes_only

_PACKAGES = ("onnx-graft", "onnx", "numpy", "protobuf", "rich", "onnxruntime", "pillow")
_ABOUT = """This folder describes a problem with onnx-graft. It has no weights.

graph.txt      operators, their settings, links, types and shapes; tensors have no values, except for short vectors of
               INT64 (shapes, axes) if --keep-shapes was given
versions.txt   Python, packages and system
command.txt    the command that was run, if one was given
output.txt     what the command printed, and its exit code

Look at the files before you send them. Names of nodes and tensors are those of the model, unless --rename was given.
"""


def collected(
    model: ModelProto | None,
    arguments: Sequence[str] = (),
    *,
    why: str = "",
    rename: bool = False,
    keep_shapes: bool = False,
) -> Mapping[str, str]:
    """The files by name.

    Args:
        model: The model; None if it cannot be read.
        arguments: A command of `onnxgraft` to run, such as `["apply", "model.onnx", ...]`; empty for none.
        why: Why the model cannot be read.
        rename: Replaces the names of nodes, tensors and symbolic dimensions, in the output of the command too.
        keep_shapes: Keeps the values of short vectors of INT64, which are shapes, axes and bounds.
    """
    names = Names(renamed=rename)
    files = {"README.txt": _ABOUT, "versions.txt": _versions()}
    if model is not None:
        files[NAME] = graph_text(shapes_only(model, names, keep_shapes=keep_shapes))
    else:
        files[NAME] = f"# not readable: {why}\n"
    if arguments:
        files["command.txt"] = _without_home(names.without(shlex.join(["onnxgraft", *arguments]))) + "\n"
        files["output.txt"] = _without_home(names.without(_output(arguments)))
    return files


def _versions() -> str:
    lines = [f"Python {sys.version}", f"system {platform.platform()}, {platform.machine()}"]
    for package in _PACKAGES:
        try:
            lines.append(f"{package} {version(package)}")
        except PackageNotFoundError:
            lines.append(f"{package} is not installed")
    return "\n".join(lines) + "\n"


def _output(arguments: Sequence[str]) -> str:
    """Runs the command in a process of its own, so that a crash is seen too."""
    command = [sys.executable, "-X", "faulthandler", "-m", "onnxgraft", *arguments]
    if "--" not in arguments:
        command.append("-v")  # the trace of an unexpected error
    done = subprocess.run(command, capture_output=True, text=True, errors="backslashreplace", stdin=subprocess.DEVNULL)
    return f"exit code {done.returncode}\n\n-- standard output\n{done.stdout}\n-- standard error\n{done.stderr}"


def _without_home(text: str) -> str:
    home = str(Path.home())
    return text.replace(home, "~") if len(home) > 1 else text
