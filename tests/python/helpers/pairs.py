"""Random pattern and replacement lists, valid by the notation and free of cycles of their own.

Few operators and few ids per pair, so that occurrences overlap, share nodes and stand next to each other.
"""

import random

from oracle.notation import Pair, parse_pair

OPERATORS = ("Relu", "Add", "Concat", "TesselQuant", "Conv", "If")

# Pairs that join separate parts of the pattern: through other nodes of the graph they can close a cycle.
JOINING = (
    (["Relu:0->1", "Add:2->3", "Mul:4->5"], ["#0:0,4->1", "#1", "#2"]),
    (["Relu:0->1", "Add:2->3", "Mul:4->5"], ["#0:0,4->1", "#1:2,0->3", "Concat:4->5"]),
    (["Relu:0->1", "Add:1->2", "Mul:3->4"], ["Relu:3->1", "#1", "#2"]),
)


def _read(rng: random.Random, ids: list[str]) -> str:
    return ids[max(rng.randrange(len(ids)), rng.randrange(len(ids)))]  # prefers late ones: chains


def random_pattern(rng: random.Random) -> list[str]:
    operators = rng.choices(OPERATORS, weights=(4, 4, 3, 3, 2, 2), k=rng.randint(1, 3))
    written: list[str] = []
    outside: list[str] = []
    names = [("0" if rng.random() < 0.03 else "") + str(i) for i in range(40)]
    nodes = []
    for _ in range(rng.choices((1, 2, 3, 4, 5), weights=(3, 6, 6, 3, 1))[0]):
        inputs = []
        for _ in range(rng.choices((0, 1, 2, 3), weights=(1, 12, 8, 3))[0]):
            draw = rng.random()
            if draw < 0.55 and written:
                inputs.append(_read(rng, written))
            elif draw < 0.7 and outside:
                inputs.append(rng.choice(outside))
            else:
                inputs.append(names.pop(0) + ("i" if rng.random() < 0.3 else ""))
                outside.append(inputs[-1])
        if rng.random() < 0.08:
            inputs.append("~i")
        written.append(names.pop(0))
        nodes.append(f"{rng.choice(operators)}:{','.join(inputs)}->{written[-1]}")
    if rng.random() < 0.4:
        rng.shuffle(nodes)
    return nodes


def _inputs(rng: random.Random, pair: Pair, available: list[str], fresh: list[str]) -> str:
    marked = {link.id for node in pair.pattern for link in node.inputs if link.initializer}
    result = []
    for _ in range(rng.choices((0, 1, 2, 3), weights=(1, 12, 8, 3))[0]):
        if rng.random() < 0.15 or not available:
            result.append(fresh.pop(0) + "i")
        else:
            name = _read(rng, available)
            result.append(name + ("i" if name in marked and rng.random() < 0.7 else ""))
    return ",".join(result)


def _random_replacement(rng: random.Random, pattern: list[str]) -> list[str] | None:
    """One try; None if a kept node would lose an input."""
    pair = parse_pair(pattern, [])
    share = rng.choice((0.0, 0.3, 0.6, 1.0))
    kept = {k for k in range(len(pattern)) if rng.random() < share}
    available = sorted(pair.pattern_reads - pair.pattern_outputs.keys())
    fresh = [str(i) for i in range(100, 140)]
    todo = [n.output for k, n in enumerate(pair.pattern) if k not in kept and rng.random() < 0.75]
    todo += [fresh.pop(0) for _ in range(rng.choice((0, 0, 1, 2)))]
    entries: list[str] = []
    while kept or todo:
        ready = [k for k in sorted(kept) if {i.id for i in pair.pattern[k].inputs} <= set(available)]
        if not ready and not todo:
            return None
        if ready and (not todo or rng.random() < 0.5):
            k = rng.choice(ready)
            kept.remove(k)
            entries.append(f"#{k}")
            available.append(pair.pattern[k].output)
            continue
        output = todo.pop(rng.randrange(len(todo)))
        head = f"#{rng.randrange(len(pattern))}" if rng.random() < 0.6 else rng.choice(OPERATORS[:-1])
        entries.append(f"{head}:{_inputs(rng, pair, available, fresh)}->{output}")
        available.append(output)
    if rng.random() < 0.4:
        rng.shuffle(entries)
    return entries


def random_pair(rng: random.Random) -> tuple[list[str], list[str]]:
    if rng.random() < 0.05:
        return rng.choice(JOINING)
    while True:
        pattern = random_pattern(rng)
        replacement = _random_replacement(rng, pattern)
        if replacement is not None:
            parse_pair(pattern, replacement)
            return pattern, replacement
