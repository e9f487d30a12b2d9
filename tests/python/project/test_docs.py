"""The generated parts of docs/ are up to date, and the tools that make them are right."""

import json
import re
from itertools import pairwise
from pathlib import Path
from typing import Any

import onnx
import pytest

from onnxgraft.catalogue import rows
from onnxgraft.drawing.pair_picture import lay_out
from onnxgraft.drawing.pattern_pair import Graph, State, read_pair
from tools import draw_rewrites, firing_table

PAIRS = [pair for transformation in rows().values() for pair in transformation.pairs]


def test_every_pair_has_its_picture_on_a_page(repository: Path) -> None:
    made, folder = draw_rewrites.pictures(), repository / "docs/pictures"
    assert {path.name: path.read_text() for path in folder.glob("*.svg")} == made, "run make docs"
    pages = (repository / "docs/reference/transformations").glob("[!R]*.md")
    shown = [name for page in pages for name in re.findall(r"\(\.\./\.\./pictures/(\S+)\)", page.read_text())]
    assert sorted(shown) == sorted(made)


def test_links_lead_somewhere(repository: Path) -> None:
    for page in [*repository.glob("*.md"), *repository.glob("docs/**/*.md")]:
        for target, anchor in re.findall(r"\]\((?!https?:)([^)#\s]*)(?:#([^)]+))?\)", page.read_text()):
            path = page.parent / target if target else page
            assert path.exists(), f"{page.name}: {target}"
            headings = [re.sub(r"[^\w -]", "", h).lower().replace(" ", "-") for h in _headings(path)]
            assert not anchor or anchor in headings, f"{page.name}: {target}#{anchor}"


def test_files_that_pages_name_exist(repository: Path) -> None:
    named = r"`((?:src|python|tests|tools|bench|requirements|examples|docs)/[\w./-]+)`|pytest ((?:tests)/[\w./]+)"
    for page in [*repository.glob("*.md"), *repository.glob("docs/**/*.md")]:
        for found in re.findall(named, page.read_text()):
            name = next(filter(None, found))
            assert (repository / name).exists() or "drop_double_relu" in name, f"{page.name}: {name}"


def _headings(path: Path) -> list[str]:
    return re.findall(r"^#+ (.+)$", path.read_text(), re.MULTILINE) if path.suffix == ".md" else []


@pytest.mark.skipif(onnx.__version__.startswith("1.16."), reason="infers fewer shapes, so weights cannot be split")
def test_tables_are_those_of_the_example_models(repository: Path) -> None:
    rows = json.loads((repository / "docs/development/firing.json").read_text())
    page = (repository / "docs/development/models.md").read_text()
    assert firing_table.page_with(page, rows) == page, "run make docs"
    counted = firing_table.rows_of(repository / "examples/models")
    assert len(counted) == 2
    assert {model: rows[model] for model in counted} == counted, "run make docs"


def test_every_exporter_of_a_network_ends_with_the_same_counts(repository: Path) -> None:
    """Except for sizes that an exporter has made constant itself. File names start with the network's name, up to a
    "_".
    """
    networks: dict[str, list[dict[str, Any]]] = {}
    for model, row in json.loads((repository / "docs/development/firing.json").read_text()).items():
        fired = {name: count for name, count in row["recipe"]["fired"].items() if name != "simplify_shape_v2"}
        counts = {"fired": fired, "quantize nodes": row["recipe"]["quantize_nodes"], "failed": row["recipe"]["failed"]}
        networks.setdefault(model.partition("_")[0], []).append(counts)
    several = {network: files for network, files in networks.items() if len(files) > 1}
    assert len(several) >= 12
    for network, files in several.items():
        assert all(each == files[0] for each in files), network


@pytest.mark.parametrize(
    ("pair", "before", "after"),
    [
        ((["A:0,1i->2", "B:2->3"], ["#0", "#1:2->4", "C:4,5i->3"]), "KC", "KCN"),
        ((["A:0->1", "B:1->2", "D:1,2->3"], ["#1:0->2", "#1:2->3"]), "RCR", "CC"),
    ],
)
def test_a_picture_tells_what_becomes_of_a_node(pair: tuple[list[str], list[str]], before: str, after: str) -> None:
    sides = read_pair(*pair)
    assert ["".join(node.state.name[0] for node in side.nodes) for side in sides] == [before, after]
    constants = {c.id: c.state for side in sides for node in side.nodes for c in node.constants}
    assert constants in ({"1": State.KEPT, "5": State.NEW}, {})


@pytest.mark.parametrize("side", [side for pair in PAIRS for side in read_pair(*pair)])
def test_boxes_do_not_overlap_and_edges_go_down(side: Graph) -> None:
    layout = lay_out(side)
    for layer in layout.layers:
        row = [layout.items[name] for name in layer]
        for left, right in pairwise(row):
            assert left.x + left.width / 2 < right.x - right.width / 2
    for edge in layout.edges:
        start, end = layout.items[edge.start], layout.items[edge.end]
        assert start.y + start.height / 2 < end.y - end.height / 2
        assert abs(layout.entry(edge) - end.x) <= end.width / 2
    assert len(layout.edges) == sum(len(node.inputs) for node in side.nodes) + len(side.results)
