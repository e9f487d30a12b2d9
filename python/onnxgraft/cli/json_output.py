"""The output of a command with `--json`."""

from __future__ import annotations

import json
import math
from typing import Any

from onnxgraft.cli import consoles
from onnxgraft.report.report_json import to_plain


def show(value: Any) -> None:
    """Prints dataclasses, dictionaries and lists as JSON. A number that is not finite becomes null."""
    consoles.say(json.dumps(_finite(to_plain(value)), indent=1, allow_nan=False))


def _finite(value: Any) -> Any:
    if isinstance(value, float):
        return value if math.isfinite(value) else None
    if isinstance(value, dict):
        return {key: _finite(element) for key, element in value.items()}
    if isinstance(value, set | frozenset):
        value = sorted(value)
    return [_finite(element) for element in value] if isinstance(value, list) else value
