"""Recognises by its first bytes a file that was given as a model and is something else."""

from __future__ import annotations

import re
from dataclasses import dataclass

# This many bytes are enough for all of them.
HEAD = 4096

_LFS = b"version https://git-lfs"


@dataclass(frozen=True)
class _Kind:
    start: bytes
    what: str
    offset: int = 0


_KINDS = (
    _Kind(b"\x1f\x8b", "compressed with gzip: unpack it first"),
    _Kind(b"BZh", "compressed with bzip2: unpack it first"),
    _Kind(b"\xfd7zXZ\x00", "compressed with xz: unpack it first"),
    _Kind(b"\x28\xb5\x2f\xfd", "compressed with zstd: unpack it first"),
    _Kind(b"7z\xbc\xaf\x27\x1c", "a 7z archive: unpack it first"),
    _Kind(b"ustar", "a tar archive: unpack it first", 257),
    _Kind(b"TFL3", "a TFLite model: convert it to ONNX first", 4),
    _Kind(b"ORTM", "a model in onnxruntime's own format: export it as ONNX", 4),
    _Kind(b"\x89HDF\r\n\x1a\n", "an HDF5 file (Keras): convert it to ONNX first"),
    _Kind(b"\x93NUMPY", "a NumPy array"),
    _Kind(b"GGUF", "a GGUF file: it has weights, but no graph"),
    _Kind(b"\x7fELF", "a program"),
    _Kind(b"\x89PNG", "a picture"),
    _Kind(b"\xff\xd8\xff", "a picture"),
    _Kind(b"%PDF", "a PDF document"),
)
_PATTERNS = (
    (
        re.compile(rb"PK\x03\x04.{26,512}/(data\.pkl|version|byteorder)", re.DOTALL),
        "a PyTorch file: export it to ONNX first",
    ),
    (re.compile(rb"PK\x03\x04"), "a zip archive: unpack it first"),
    (re.compile(rb"\x80[\x02-\x05]"), "a pickled Python object (PyTorch): export it to ONNX first"),
    # Eight bytes of length, then JSON.
    (re.compile(rb".{5}\0{3}\s*\{\s*\"", re.DOTALL), "a safetensors file: it has weights, but no graph"),
    (
        re.compile(rb"\s*(<!doctype html|<html|<head|<body)", re.IGNORECASE),
        "an HTML page: perhaps a page about the model was downloaded instead of the model",
    ),
    (re.compile(rb"\s*<\?xml"), "an XML text"),
    (re.compile(rb"\s*[{\[]\s*[\"{\[\d]"), "a JSON text"),
)


def kind_of(head: bytes) -> str | None:
    """What the file is, and what to do about it; None if it is of no known kind.

    Args:
        head: Its first bytes, `HEAD` of them or all.
    """
    if is_lfs_pointer(head):
        return "a Git LFS pointer, not the file itself: run `git lfs pull`"
    starts = (kind.what for kind in _KINDS if head[kind.offset : kind.offset + len(kind.start)] == kind.start)
    return next(starts, None) or next((what for pattern, what in _PATTERNS if pattern.match(head)), None)


def is_lfs_pointer(head: bytes) -> bool:
    """Whether it is a placeholder for a file that Git LFS has not fetched."""
    return head.startswith(_LFS)
