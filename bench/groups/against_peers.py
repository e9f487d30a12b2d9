"""The same rewrite by all tools. A time counts only after the result was found equal."""

from __future__ import annotations

import sys
import time
from collections.abc import Callable, Iterator

import numpy as np
import onnx
from floors import length_of_all_names

from bench import arithmetic, rewrites
from bench.equality import difference
from bench.figures import Contest, Entry
from bench.networks import resnet50
from bench.peers import QUANTIZING, Peer, plain_python
from bench.sizes import Sizes
from bench.timing import Work, fastest
from bench.workloads import chain_model, model_copy

OWN = "onnx-graft"
_QUANTIZING = Peer(OWN, lambda model: rewrites.quant_conv(model.graph))
_MERGING = [
    Peer(OWN, lambda model: rewrites.merge(model.graph)),
    Peer("plain Python", lambda model: plain_python.replace_quant_any(model.graph)),
]
_LARGEST_CHECKED = 10_000


def measure(sizes: Sizes) -> Iterator[Contest]:
    """One contest after the other."""
    for length in sizes.chains:
        yield _quantizing(f"quant_conv, {length:,} Conv + Relu", chain_model("conv", length), sizes)
    yield _quantizing("quant_conv, ResNet-50", resnet50(sizes.resnet_width), sizes)
    length = sizes.chains[1]
    model = chain_model("merge", length)
    work = f"replace_quant_any, {length:,} merges"
    yield contest(work, length, model, _MERGING, ("F2", lambda: length_of_all_names(model.graph)), sizes)


def _quantizing(work: str, model: onnx.ModelProto, sizes: Sizes) -> Contest:
    pairs = arithmetic.weights_and_biases(model.graph)
    tools, left_out = [_QUANTIZING], []
    for row in QUANTIZING:
        if len(pairs) > row.largest:
            left_out.append(f"{row.name}: more than 20 s")
            continue
        try:
            tools.append(row.peer())
        except ImportError:
            left_out.append(f"{row.name}: not installed")
    made = contest(work, len(pairs), model, tools, ("F3", lambda: arithmetic.quantize(pairs)), sizes)
    made.left_out.extend(left_out)
    return made


def contest(
    work: str,
    occurrences: int,
    model: onnx.ModelProto,
    tools: list[Peer],
    floor: tuple[str, Callable[[], object]],
    sizes: Sizes,
) -> Contest:
    """Checks the tools against the first one, then runs all of them, alternating."""
    print(f"measuring {work}", file=sys.stderr)
    checked = {tool.name: "" for tool in tools}
    if occurrences <= _LARGEST_CHECKED:
        checked = _checked(model, tools)
    rewriting = {tool.name: float("inf") for tool in tools}

    def runs(tool: Peer) -> Callable[[], Work]:
        def prepare() -> Work:
            copy = model_copy(model)

            def work() -> onnx.ModelProto:
                loaded = tool.load(copy)
                begin = time.process_time()
                tool.rewrite(loaded)
                rewriting[tool.name] = min(rewriting[tool.name], time.process_time() - begin)
                return tool.store(loaded)

            return work

        return prepare

    contenders = {floor[0]: lambda: floor[1]} | {tool.name: runs(tool) for tool in tools}
    seconds = fastest(contenders, sizes.rounds, sizes.patience)
    entries = [Entry(t.name, seconds[t.name], rewriting[t.name], checked[t.name]) for t in tools]
    return Contest(work, occurrences, floor[0], seconds[floor[0]], entries)


def _checked(model: onnx.ModelProto, tools: list[Peer]) -> dict[str, str]:
    """All from the same seed: the drawn numbers must be the same too."""
    results = {}
    for tool in tools:
        np.random.seed(0)
        loaded = tool.load(model_copy(model))
        tool.rewrite(loaded)
        results[tool.name] = tool.store(loaded).graph
    own = results[tools[0].name]
    for name, result in results.items():
        if found := difference(own, result):
            raise RuntimeError(f"{name} gives another result than {tools[0].name}: {found}")
    return dict.fromkeys(results, "nodes, links, attributes and tensors equal")
