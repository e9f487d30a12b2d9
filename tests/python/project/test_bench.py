"""The benchmark runs, and its check of results finds differences. Its figures are not tested."""

import sys
import types
from pathlib import Path
from xml.etree import ElementTree

import pytest

from bench import page
from bench.equality import difference
from bench.figures import Results
from bench.program import run
from bench.sizes import TINY
from bench.workloads import chain_model, copy_of

FIGURES = {"floors": 7, "cold": 3, "road": 3, "peers": 0, "growth": 7, "models": 2}


def test_a_tiny_run_fills_the_page(tmp_path: Path, repository: Path, monkeypatch: pytest.MonkeyPatch) -> None:
    floors = types.ModuleType("floors")  # is compiled for the benchmark only
    vars(floors)["count_op_type"] = lambda graph, wanted: sum(node.op_type == wanted for node in graph.node)
    vars(floors)["length_of_all_names"] = lambda graph: sum(len(name) for n in graph.node for name in n.input)
    monkeypatch.setitem(sys.modules, "floors", floors)
    run(list(FIGURES), TINY).write(tmp_path / "bench.json")
    results = Results.read(tmp_path / "bench.json")
    assert {group: len(figures) for group, figures in results.figures.items()} == FIGURES
    assert all(entry.checked for contest in results.contests for entry in contest.entries)
    (tmp_path / "speed.md").write_text((repository / "docs/development/speed.md").read_text())
    page.renew(results, tmp_path)
    text, drawn = (tmp_path / "speed.md").read_text(), ElementTree.parse(tmp_path / "speed.svg").getroot()
    assert text.count("\n| plain Python |") == len(results.contests) == 5
    assert [part.text for part in drawn.iter()].count("plain Python") == 4


def test_equal_results_are_told_from_others() -> None:
    graph = chain_model("conv", 3).graph
    one, two = copy_of(graph), copy_of(graph)
    assert difference(one, two) is None
    two.initializer[-1].dims.append(1)
    assert "initializers" in str(difference(one, two))
    two.CopyFrom(one)
    two.node[1].input[0] = "t0"
    assert "nodes" in str(difference(one, two))
