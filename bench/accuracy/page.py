"""Writes docs/use/accuracy.md from the measurements."""

from __future__ import annotations

import difflib
import os
from collections.abc import Iterator, Sequence
from pathlib import Path
from typing import Any

from bench.accuracy.networks import BY_NAME, FOLDER, NETWORKS, WHOLE

PAGE = Path(__file__).resolve().parents[2] / "docs/use/accuracy.md"
_COLUMNS = {
    "extremes": "quantized, by extremes",
    "plain": "quantized",
    "recipe": "whole recipe",
    "corrected": "biases corrected",
    "float2": "2 % float",
    "float5": "5 % float",
}
_PEER = "onnxruntime, best"
_PEERS = {
    "ort_same": "`Conv`, `Gemm` and `MatMul` per channel",
    "ort_tensor": "the same per tensor",
    "ort_percentile": "per channel with its percentile ranges",
    "ort_entropy": "per channel with its entropy ranges",
    "ort_symmetric": "per channel without offsets",
    "ort_all": "all operators per channel",
}
_HEAD = """# Accuracy

How close do quantized networks come to float? This page quantizes four trained models, which are part of other
packages, with real numbers, and compares each with its float version and with onnxruntime's own quantization. Read it
to know what to expect from your network. `make accuracy` downloads or makes models, pictures and sounds in
`build/accuracy/`, measures everything, and writes this page. It keeps each result in `build/accuracy/results.json`.
If it is interrupted, the next start goes on from there. Delete that file to measure everything again.

- **Models**: text detector, text recognizer and angle classifier of rapidocr-onnxruntime {rapidocr}, and the
  voice detector of silero-vad {silero}.
- **Data**: pages of eight lines of text, drawn in eleven fonts, some blurred or rotated, and synthetic sounds like
  speech, prepared by the packages' own pipelines. The detector reads pages ({det}), the recognizer lines ({rec}),
  the angle classifier lines of which every second one is upside down ({cls}), the voice detector pieces of sound
  ({vad}): so many for calibration, and as many others for the test.
- **Ours**: ranges by the least mean square error; in one column by their extremes. *Quantized* is `quant_conv`,
  `quant_gemm` and `quant_matmul`. The *whole recipe* then merges and moves quantize nodes ({count} transformations).
  *Biases corrected* adds the correction that `rewrite` makes if it has samples. *Float* also leaves the operators that
  hurt most in float, up to a share of the multiply-adds. All of that is chosen on calibration data. Results are
  lowered to standard operators that compute what integer hardware computes, and onnxruntime runs them.
- **onnxruntime**: `quantize_static` with pairs of QuantizeLinear and DequantizeLinear on the same data:
  {peers}.
  Each is computed as onnxruntime fuses it, and with exact arithmetic: its integer kernels saturate on processors
  without VNNI, which costs up to 15 dB. The best result counts.
"""
_DECIBELS = """
## Signal to noise

In dB, over all test data and all elements of the output: 10 log10 (sum of squares / sum of squared errors). Higher is
better; 6 dB are one bit.

"""
_TYPICAL = """
The same for a typical sample: the mean of the samples' own figures. A few samples for which the float model itself
hardly decides, such as a line that could be upside down, make most of the error in the table above. They count no more
than others here.

"""
_PIPELINE = """
## Text before and after

{pages} pages with {lines} lines go through the OCR package's own pipeline, with our lowered models instead of its
three float models.

- *Boxes*: lines found where the float models find them.
- *Equal*: lines read exactly as by the float models; *but for spaces*: the same, ignoring spaces.
- *Characters*: the share of the float models' characters that were read.
- *As drawn*: lines read as they were drawn, ignoring spaces.

"""
_TIME = """
## Time and memory

Seconds on the machine that wrote this page ({processors} processors, with other work at the same time). *Forward* runs
the float model over the calibration data. *Collecting* the ranges on the same data is one pass. Both are CPU time, the
other columns are wall time. Memory is the peak of the whole process.

"""


def write(results: dict[str, Any]) -> None:
    """Writes the page."""
    counted = {name: results.get(name, {}).get("forward", {}).get("samples", "-") for name in BY_NAME}
    text = _HEAD.format(
        rapidocr=_version("rapidocr_onnxruntime"),
        silero=_version("silero_vad"),
        count=len(WHOLE),
        peers=_peers(results),
        **counted,
    )
    text += _DECIBELS + _table(_decibels(results, "decibels")) + _TYPICAL + _table(_decibels(results, "typical"))
    if failures := list(_failures(results)):
        text += "\n" + "\n".join(failures) + "\n"
    if found := results.get("pipeline"):
        pages = found["float"]["drawn"]
        text += _PIPELINE.format(pages=len(pages), lines=sum(map(len, pages))) + _table(_readings(found))
        if examples := list(_examples(found)):
            text += "\nUp to eight lines that ours, all INT8, reads differently from float:\n\n" + _table(examples)
    text += _TIME.format(processors=os.cpu_count()) + _table(_times(results))
    PAGE.write_text(text)


def _peers(results: dict[str, Any]) -> str:
    return "; ".join(title for task, title in _PEERS.items() if any(task in found for found in results.values()))


def _version(package: str) -> str:
    (found,) = (FOLDER / "wheels").glob(f"{package}-*.dist-info")
    return found.name.removeprefix(f"{package}-").removesuffix(".dist-info")


def _table(rows: Sequence[Sequence[str]]) -> str:
    head, *rest = rows
    lines = [head, ["---", *["--:"] * (len(head) - 1)], *rest]
    return "".join("| " + " | ".join(line) + " |\n" for line in lines)


def _decibels(results: dict[str, Any], key: str) -> list[list[str]]:
    columns = {task: title for task, title in _COLUMNS.items() if any(task in found for found in results.values())}
    rows = [["model", *columns.values(), _PEER]]
    for network in NETWORKS:
        found = results.get(network.name, {})
        peers = [value[key] for task, value in found.items() if task.startswith("ort_") and key in value]
        cells = [_number(found.get(task, {}).get(key)) for task in columns]
        rows.append([network.title, *cells, _number(max(peers, default=None))])
    return rows


def _number(value: float | None) -> str:
    return "-" if value is None else f"{value:.1f}"


def _failures(results: dict[str, Any]) -> Iterator[str]:
    titles = {**_COLUMNS, **{task: f"onnxruntime, {title}" for task, title in _PEERS.items()}}
    for network in NETWORKS:
        for task, value in results.get(network.name, {}).items():
            if "failed" in value:
                yield f"- {network.title}, {titles.get(task, task)}: {' '.join(value['failed'].split())[-200:]}"
            elif left := value.get("left"):
                yield f"- {network.title}, {titles.get(task, task)}: float stay {', '.join(left)}"


def _readings(found: dict[str, Any]) -> list[list[str]]:
    titles = {"float": "float", **_COLUMNS, "ort": _PEER}
    rows = [["models", "boxes", "equal", "but for spaces", "characters", "as drawn", "seconds"]]
    for name, reading in found.items():
        pairs = list(_pairs(found["float"], reading))
        boxes = sum(other is not None for _, other in pairs)
        equal = sum(text == other for text, other in pairs)
        alike = sum(other is not None and _bare(text) == _bare(other) for text, other in pairs)
        kept = sum(_common(text, other or "") for text, other in pairs)
        total = sum(len(text) for text, _ in pairs)
        drawn = [text for lines in reading["drawn"] for text in lines]
        read = [_bare(text) for lines in reading["found"] for _, text in lines]
        right = sum(_bare(text) in read for text in drawn)
        share = f"{100 * kept / max(total, 1):.1f} %"
        cells = [
            f"{boxes} of {len(pairs)}",
            f"{equal} of {len(pairs)}",
            f"{alike} of {len(pairs)}",
            share,
            f"{right} of {len(drawn)}",
        ]
        rows.append([titles[name], *cells, f"{reading['seconds']:.0f}"])
    return rows


def _pairs(floats: dict[str, Any], other: dict[str, Any]) -> Iterator[tuple[str, str | None]]:
    """Each line of the float models with the text that the others read at that place."""
    for before, after in zip(floats["found"], other["found"], strict=True):
        for box, text in before:
            near = [candidate for candidate in after if _overlap(box, candidate[0]) > 0.5]
            yield text, max(near, key=lambda candidate: _overlap(box, candidate[0]))[1] if near else None


def _bare(text: str) -> str:
    return text.replace(" ", "")


def _overlap(first: Sequence[Sequence[float]], second: Sequence[Sequence[float]]) -> float:
    """Of the upright boxes around two quadrilaterals: intersection over union."""
    ends = [
        [(min(point[axis] for point in box), max(point[axis] for point in box)) for axis in (0, 1)]
        for box in (first, second)
    ]
    sides = [max(0.0, min(a[1], b[1]) - max(a[0], b[0])) for a, b in zip(*ends, strict=True)]
    areas = [(x[1] - x[0]) * (y[1] - y[0]) for x, y in ends]
    inner = sides[0] * sides[1]
    return float(inner / max(sum(areas) - inner, 1e-9))


def _common(first: str, second: str) -> int:
    matcher = difflib.SequenceMatcher(None, first, second, autojunk=False)
    return sum(block.size for block in matcher.get_matching_blocks())


def _examples(found: dict[str, Any]) -> Iterator[list[str]]:
    ours = "corrected" if "corrected" in found else "recipe"
    if ours not in found:
        return
    different = [pair for pair in _pairs(found["float"], found[ours]) if pair[0] != pair[1]]
    if different:
        yield ["float", "ours"]
    for text, other in different[:8]:
        yield [f"`{text}`", f"`{other}`" if other is not None else "not found"]


def _times(results: dict[str, Any]) -> list[list[str]]:
    titles = {
        "random_apply": "random",
        "plain": "filled",
        "corrected": "corrected",
        "float5": "5 % float",
        "ort_same": "onnxruntime",
    }
    titles = {task: title for task, title in titles.items() if any(task in found for found in results.values())}
    rows = [["model", "forward", "collecting", "ratio", "memory, MB", *titles.values()]]
    for network in NETWORKS:
        found = results.get(network.name, {})
        forward, collecting = (found.get(task, {}).get("busy") for task in ("forward", "calibrate"))
        ratio = f"{collecting / forward:.1f}" if forward and collecting else "-"
        memory = found.get("calibrate", {}).get("megabytes")
        cells = [_number(forward), _number(collecting), ratio, "-" if memory is None else f"{memory:.0f}"]
        rows.append([network.title, *cells, *(_number(found.get(task, {}).get("seconds")) for task in titles)])
    return rows
