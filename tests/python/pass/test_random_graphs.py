"""The real pass against the slow model on random graphs: every call of the callback and every resulting byte.

ONNXGRAFT_RANDOM_GRAPHS sets the number of graphs; a failure names the seed, and `check(seed)` repeats it alone.
Hypothesis draws fewer graphs, but reduces a failing one to a minimal example.
"""

import os
import random
import zlib
from collections.abc import Callable
from dataclasses import dataclass, field
from graphlib import CycleError, TopologicalSorter
from typing import Any

import pytest
from hypothesis import given
from hypothesis import strategies as st
from onnx import GraphProto, NodeProto, TensorProto, helper
from onnx.printer import to_text

from helpers.checks import dangling
from helpers.graphs import random_graph
from helpers.pairs import random_pair
from helpers.small_graphs import graph_of
from onnxgraft import catalogue
from onnxgraft.abstract_transformation import AbstractTransformation, find_occurrences, nearest_miss, trace_nodes
from onnxgraft.catalogue.notation import read_pair
from onnxgraft.graph.names import all_names, reads
from onnxgraft.selfcheck.soundness import problems
from oracle.compare import Renaming, difference, serialized
from oracle.matching import Table, all_assignments, choose
from oracle.notation import Pair, parse_pair
from oracle.notation import read_pair as read_slowly
from oracle.rewriting import Pass

GRAPHS = int(os.environ.get("ONNXGRAFT_RANDOM_GRAPHS", "3200"))
BLOCKS = 20
MOST_ASSIGNMENTS = 40  # patterns in several parts have hundreds of matches, which only costs time


class Fault(BaseException):
    """Raised by a callback; not an `Exception`, like a keyboard interrupt."""


CATALOGUE = [
    (list(pattern), list(replacement)) for row in catalogue.rows().values() for pattern, replacement in row.pairs
]
POLICIES = ("accept", "refuse", "some", "some", "fault")


def verdict(policy: str, salt: int, number: int, links: str) -> bool:
    if policy in ("accept", "refuse"):
        return policy == "accept"
    if policy == "fault" and number == salt % 4:
        raise Fault(number)
    return zlib.crc32(f"{salt} {links}".encode()) % 3 != 0


TRUE: tuple[object, ...] = (True, 1, "yes", [0])
FALSE: tuple[object, ...] = (False, None, 0, "", [])


@dataclass
class Recorder:
    """Acts as the callback for either side, and records its arguments without invented names."""

    pair: Pair
    known: set[str]
    policy: str
    salt: int
    calls: list[tuple[object, ...]] = field(default_factory=list)

    def __call__(
        self, graph: GraphProto, nodes: list[NodeProto], mapping: dict[int, int], links: dict[str, str]
    ) -> object:
        form = Renaming(graph, self.known)
        tensors = {i: form.tensor(name) for i, name in links.items()}
        shown = [serialized(form.node(node)) for node in nodes]
        self.calls.append((shown, dict(mapping), tensors, to_text(form.form), serialized(form.form)))
        old = {i: name for i, name in sorted(links.items()) if name in self.known}
        number = len(self.calls) - 1
        if not verdict(self.policy, self.salt, number, repr(old)):
            return FALSE[(self.salt + number) % len(FALSE)]
        for index in mapping.values():
            graph.node[index].attribute.append(helper.make_attribute("visit", number))
        made = {links[i.id] for e in self.pair.replacement for i in e.node.inputs if i.initializer} - self.known
        for name in sorted(made, key=form.tensor):
            graph.initializer.append(helper.make_tensor(name, TensorProto.FLOAT, [1], [float(number)]))
        return TRUE[(self.salt + number) % len(TRUE)]


class Real(AbstractTransformation):
    """Passes each occurrence to a recorder."""

    def __init__(self, recorder: Recorder) -> None:
        self.recorder = recorder

    def _on_replace_subgraph(self, graph: GraphProto, *found: Any, **kwargs: Any) -> Any:
        assert kwargs == {"keyword": self.recorder}
        assert [type(argument) for argument in found] == [list, dict, dict]
        return self.recorder(graph, *found)

    def run(self, graph: GraphProto, pattern: list[str], replacement: list[str]) -> int:
        count = self._replace_all_isomorphic_sub_graphs(graph, pattern, replacement, debug=False, keyword=self.recorder)
        assert type(count) is int
        return count


def _run(call: Callable[[], int]) -> int | str:
    try:
        return call()
    except Fault as fault:
        return f"fault at {fault}"


def _new_faults(before: GraphProto, after: GraphProto, *, acyclic: bool, faulted: bool) -> list[str]:
    """Conditions on every result, whatever the slow model says."""
    missing = dangling(after) - dangling(before)
    if faulted:  # initializers that the callback has not made yet may be missing, but no old ones
        missing &= all_names(before)
    old, new = problems(before), problems(after)
    judged = ["writers"] + ["order"] * acyclic
    return [*missing, *(text for kind in judged if kind not in old for text in new.get(kind, ()))]


def _acyclic(graph: GraphProto) -> bool:
    """Several occurrences together may close a cycle; then no order exists."""
    writer = {name: index for index, node in enumerate(graph.node) for name in node.output}
    needs = {k: {writer[n] for n in reads(node) if n in writer} for k, node in enumerate(graph.node)}
    try:
        TopologicalSorter(needs).prepare()
    except CycleError:
        return False
    return True


def check_traces(graph: GraphProto, pattern: list[str], replacement: list[str], head: str) -> None:
    """A node has a place in the pattern exactly if some assignment has it there."""
    assignments = {found.nodes for found in all_assignments(Table(graph), parse_pair(pattern, replacement))}
    places = {(node, role) for nodes in assignments for role, node in enumerate(nodes)}
    traces = trace_nodes(graph, [(pattern, replacement)], range(len(graph.node)))
    fitting = {(one["node"], one["pattern_node"]) for one in traces if one["occurrence"] is not None}
    assert fitting == places, f"{head}places of single nodes"
    for one in traces:
        if (found := one["occurrence"]) is not None:
            assert tuple(found) in assignments, head
            assert found[one["pattern_node"]] == one["node"], head
            continue
        miss = one["miss"]
        assert miss is not None
        # The walk ends at a fault: before all pattern nodes have found their node, or at a cycle.
        assert miss["reason"] != "none", f"{head}{one}"
        assert miss["matched"] < len(pattern) or miss["reason"] == "closes_cycle", f"{head}{one}"


def check(seed: int) -> tuple[int, int]:
    """One random graph; the numbers of calls and of accepted occurrences."""
    return check_drawn(random.Random(seed), f"seed {seed} ")


def check_drawn(rng: random.Random, head: str = "") -> tuple[int, int]:
    pattern, replacement = rng.choice(CATALOGUE) if rng.random() < 0.4 else random_pair(rng)
    before = random_graph(rng, pattern)
    if len(all_assignments(Table(before), parse_pair(pattern, replacement))) > MOST_ASSIGNMENTS:
        return 0, 0
    policy, salt = rng.choice(POLICIES), rng.randrange(1000)
    known = all_names(before)
    sides = [Recorder(parse_pair(pattern, replacement), known, policy, salt) for _ in range(2)]
    graphs = [GraphProto.FromString(before.SerializeToString()) for _ in range(2)]
    head += f"{policy}\npattern {pattern}\nreplacement {replacement}\n{to_text(before)}\n"

    check_traces(before, pattern, replacement, head)
    expected = Pass(graphs[0], pattern, replacement)
    expected_result = _run(lambda: expected.run(sides[0]))
    assert (nearest_miss(before, pattern, replacement) is None) == bool(sides[0].calls), f"{head}why nothing matched"
    held = list(graphs[1].node)
    actual_result = _run(lambda: Real(sides[1]).run(graphs[1], pattern, replacement))

    for number, (want, got) in enumerate(zip(sides[0].calls, sides[1].calls, strict=False)):
        for what, a, b in zip(("nodes", "node mapping", "links", "graph", "bytes"), want, got, strict=True):
            assert a == b, f"{head}call {number}: {what}\nexpected {a}\nactual {b}"
    assert len(sides[0].calls) == len(sides[1].calls), f"{head}number of calls"
    assert expected_result == actual_result, f"{head}result"
    found = difference(graphs[0], graphs[1], known)
    assert found is None, head + str(found)
    if policy == "refuse":
        assert serialized(graphs[1]) == serialized(before), f"{head}a trace of refused occurrences"
    for index, origin in enumerate(expected.origins):
        assert origin is None or graphs[1].node[index] is held[origin], f"{head}node {index} was exchanged"
    faulted = isinstance(actual_result, str)
    faults = _new_faults(before, graphs[1], acyclic=_acyclic(graphs[0]), faulted=faulted)
    assert not faults, f"{head}{faults}\n{to_text(graphs[1])}"
    return len(sides[1].calls), len(expected.accepted)


@pytest.mark.parametrize("block", range(BLOCKS))
def test_random_graphs(block: int) -> None:
    size = max(1, GRAPHS // BLOCKS)
    calls = [check(seed)[0] for seed in range(block * size, (block + 1) * size)]
    # Checks the generators: most graphs must contain something to replace.
    assert size < 100 or sum(map(bool, calls)) > size // 2


@given(st.randoms(use_true_random=False))
def test_graphs_that_shrink(rng: random.Random) -> None:
    check_drawn(rng)


def small_case(rng: random.Random) -> tuple[GraphProto, list[str], list[str]]:
    """Unary A and binary B nodes, so few that all ways to connect them come up."""
    size, roles = rng.choice(((3, 1), (3, 2), (4, 2), (4, 3)))
    lines = []
    for node in range(size):
        reads = rng.choices(range(node + 1), k=rng.choice((1, 2, 2)))
        lines.append(f"{' AB'[len(reads)]} {' '.join(f't{name}' for name in reads)} -> t{node + 1}")
    pattern, outside = [], roles
    for role in range(roles):
        ids = []
        for _ in range(rng.choice((1, 2, 2))):
            ids.append(rng.randint(0, outside))
            outside = max(outside, ids[-1] + 1)
        pattern.append(f"{' AB'[len(ids)]}:{','.join(map(str, ids))}->{role}")
    inputs = ",".join(map(str, range(roles, outside)))
    choices = [("", f"#{role}", f"N:{inputs}->{role}") for role in range(roles)]
    replacement = [entry for entry in map(rng.choice, choices) if entry]
    return graph_of(lines, outputs=rng.choice(([], [f"t{size // 2}"]))), pattern, replacement


@pytest.mark.parametrize("block", range(4))
def test_small_patterns_on_small_graphs(block: int) -> None:
    found = tried = 0
    for seed in range(block * 5000, (block + 1) * 5000):
        graph, pattern, replacement = small_case(random.Random(seed))
        try:
            matches = [match["nodes"] for match in find_occurrences(graph, pattern, replacement)]
        except ValueError:  # keeps a node without its input
            continue
        pair = parse_pair(pattern, replacement)
        expected = [list(chosen.nodes) for chosen in choose(pair, all_assignments(Table(graph), pair), [])]
        assert matches == expected, f"seed {seed}: {pattern} {replacement} {to_text(graph)}"
        assert (nearest_miss(graph, pattern, replacement) is None) == bool(matches), f"seed {seed}"
        check_traces(graph, pattern, replacement, f"seed {seed}: {pattern} {replacement} {to_text(graph)}")
        found, tried = found + len(matches), tried + 1
    assert found > tried / 50


def test_tools_are_told_what_the_lists_say() -> None:
    rng = random.Random(0)
    for pattern, replacement in [*CATALOGUE, *(random_pair(rng) for _ in range(300))]:
        parsed: tuple[object, object] = read_pair(pattern, replacement)
        assert parsed == read_slowly(pattern, replacement)
