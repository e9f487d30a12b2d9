"""The map of a network: every node has one place, links lead both ways, texts stay texts, looks differ in lightness."""

import re
from collections import Counter
from html import unescape
from html.parser import HTMLParser
from itertools import combinations, pairwise
from pathlib import Path

import numpy as np
import onnx
import pytest
from onnx import TensorProto, helper, numpy_helper

import onnxgraft
from onnxgraft.comparison import diff
from onnxgraft.comparison.diff_page import diff_page
from onnxgraft.drawing.network_blocks import blocks_of
from onnxgraft.drawing.network_layout import COLUMN, NODE_HEIGHT, NODE_WIDTH, lay_out
from onnxgraft.graph import surroundings
from onnxgraft.report.network import Network, NetworkNode, NodeLine, network_of
from onnxgraft.report.network_map import LOOKS, NetworkMap
from onnxgraft.report.report_page import report_page

STYLES = Path(onnxgraft.__file__).parent / "report"
NASTY = '</script></pre><img src=x onerror="alert(1)">\'\n\t\x00\u202e'


def fan(count: int, *, nasty: bool = False) -> onnx.ModelProto:
    """`Conv` nodes on one tensor, and one `Conv` with a computed weight."""
    nodes = [helper.make_node("Conv", ["x", f"w{k}"], [f"y{k}"], name=f"block/conv{k}") for k in range(count)]
    nodes += [helper.make_node("Neg", ["w0"], ["v"]), helper.make_node("Conv", ["x", "v"], ["z"], name="free")]
    weight = np.ones((1, 1, 1, 1), np.float32)
    graph = helper.make_graph(
        nodes,
        "fan",
        [helper.make_tensor_value_info("x", TensorProto.FLOAT, [1, 1, 4, 4])],
        [helper.make_tensor_value_info(node.output[0], TensorProto.FLOAT, None) for node in nodes],
        [numpy_helper.from_array(weight, f"w{k}") for k in range(count)],
    )
    if nasty:
        graph.node[0].name = NASTY
    return helper.make_model(graph, opset_imports=[helper.make_opsetid("", 13)])


class Links(HTMLParser):
    """Ids, and the ids that links lead to, each with its position."""

    def __init__(self, content: str) -> None:
        super().__init__()
        self.ids: list[str] = []
        self.links: list[str] = []
        self.tags: Counter[str] = Counter()
        self.feed(content)

    def handle_starttag(self, tag: str, attrs: list[tuple[str, str | None]]) -> None:
        self.tags[tag] += 1
        self.ids += [str(value) for name, value in attrs if name == "id"]
        self.links += [str(value)[1:] for name, value in attrs if name == "href" and str(value).startswith("#")]


def lines(page: str) -> list[list[str]]:
    found = re.search(r'<pre id="map-data" hidden>(.*?)</pre>', page, re.DOTALL)
    assert found is not None
    return [unescape(line).split("\t") for line in found[1].split("\n")]


def page_of(kind: str, *, nasty: bool = False) -> str:
    before, after = fan(6, nasty=nasty), fan(6, nasty=nasty)
    report = onnxgraft.rewrite(after, ["quant_conv", "replace_quant"], seed=0, details="neighbours")
    return report_page(report) if kind == "report" else diff_page(diff(before, after))


@pytest.mark.parametrize("kind", ["report", "diff"])
def test_every_node_is_on_the_map_once_and_links_lead_both_ways(kind: str) -> None:
    page = page_of(kind, nasty=True)
    after = fan(6)
    onnxgraft.rewrite(after, ["quant_conv", "replace_quant"], seed=0)
    assert Counter(line[3] for line in lines(page)) == Counter(node.op_type for node in after.graph.node)
    rectangles = re.findall(r"M\d+ \d+h44v15h-44z", page.partition('<g class="links">')[0])
    assert len(set(rectangles)) == len(rectangles) == len(after.graph.node)
    read = Links(page)
    assert len(set(read.ids)) == len(read.ids)
    assert not set(read.links) - set(read.ids)
    assert (read.tags["img"], read.tags["script"]) == (0, 1)
    cards = [name for name in read.ids if name.startswith("card-")]
    assert len(cards) == read.tags["article"] > 0
    for card in cards:  # its title leads to a node that leads to it, or to a card that has the node too
        title = page.partition(f'<article id="{card}"')[2].partition("</h3>")[0]
        node = re.search(r'href="#(node-\d+)"', title)
        assert node is not None
        assert re.search(f'<a id="{node[1]}" href="#card-', page)
    targets = {target for line in lines(page) for target in line[2].split(",") if target}
    assert targets <= set(read.ids)


def test_what_stayed_in_float_leads_to_its_place_and_back() -> None:
    page = page_of("report")
    (free,) = (k for k, line in enumerate(lines(page)) if line[4] == "free")
    assert f'<span id="float-0" tabindex="-1"><a href="#node-{free}">' in page
    assert lines(page)[free][2] == "float-0"
    assert "is written by Neg" in page


def test_a_large_network_is_drawn_by_blocks() -> None:
    count = 300
    names = [f"net/stage{k // 60}/layer{k // 20}/node{k}" for k in range(count)]
    nodes = [NetworkNode("Relu", names[k], f"t{k}", "other", "kept") for k in range(count)]
    drawn = NetworkMap(Network(nodes, [*pairwise(range(count))]), most=299)
    page = drawn.html({7: "card-1", 8: "card-2"})
    listed = lines(page)
    assert sum(int(line[3].split()[0]) for line in listed) == count
    assert [line[2] for line in listed if line[2]] == ["card-1", "card-2"]
    assert drawn.anchor(7) in re.findall(r'<a id="([^"]+)" href="#card-1"', page)
    blocks = blocks_of(names, 15)
    assert [(one.start, one.stop) for one in blocks] == [(k, k + 20) for k in range(0, count, 20)]
    assert blocks[4].label == "net/stage1/layer4"


@pytest.mark.parametrize(
    "edges",
    [
        [*pairwise(range(40))],
        [(0, k) for k in range(1, 200)],  # more readers than a column holds
        [*pairwise(range(60)), (3, 55), (5, 6), (59, 0)],  # a long edge, an edge twice, a cycle
        [(k, j) for k in range(8) for j in range(8, 16)],
        [],
    ],
)
def test_nodes_are_apart_and_follow_their_writers(edges: list[tuple[int, int]]) -> None:
    count = max((max(edge) for edge in edges), default=2) + 1
    layout = lay_out(count, list(dict.fromkeys(edges)))
    boxes = sorted(zip(layout.x, layout.y, strict=True))
    for (x, y), (next_x, next_y) in pairwise(boxes):
        assert next_x - x >= NODE_WIDTH or next_y - y >= NODE_HEIGHT
    for places, size, most in ((layout.x, NODE_WIDTH, layout.width), (layout.y, NODE_HEIGHT, layout.height)):
        assert all(0 <= place <= most - size for place in places)
    if layout.width > COLUMN * count:  # one row: all edges lead to the right
        assert all(layout.x[a] < layout.x[b] for a, b in edges)


def test_nodes_are_matched_up_by_what_they_write_and_by_name() -> None:
    def line(op: str, name: str, inputs: str, output: str) -> NodeLine:
        return NodeLine(op, name, tuple(inputs.split()), (output,), "other")

    before = [line("A", "a", "x", "1"), line("B", "b", "1", "2"), line("C", "", "2", "3"), line("D", "d", "3", "4")]
    after = [line("A", "a", "x", "1"), line("Q", "q", "1", "q"), line("C", "", "q", "3"), line("D", "d", "3", "5")]
    network = network_of(before, after)
    assert [(n.op_type, n.fate) for n in network.nodes] == [
        ("A", "kept"), ("Q", "added"), ("B", "removed"), ("C", "changed"), ("D", "changed"),
    ]  # fmt: skip
    assert set(network.edges) == {(0, 1), (1, 3), (3, 4), (0, 2), (2, 3)}


def luminance(colour: str) -> float:
    parts = [int(colour[k : k + 2], 16) / 255 for k in (1, 3, 5)]
    red, green, blue = (part / 12.92 if part <= 0.04045 else ((part + 0.055) / 1.055) ** 2.4 for part in parts)
    return 0.2126 * red + 0.7152 * green + 0.0722 * blue


def contrast(first: str, second: str) -> float:
    low, high = sorted((luminance(first), luminance(second)))
    return (high + 0.05) / (low + 0.05)


@pytest.mark.parametrize("dark", [False, True], ids=["light", "dark"])
def test_looks_differ_in_lightness_and_frames_and_texts_are_seen(dark: bool) -> None:
    colours: dict[str, str] = {}
    for name in ("page.css", "map.css"):
        light, _, rest = (STYLES / name).read_text().partition("@media (prefers-color-scheme: dark)")
        for part in (light, rest)[: 1 + dark]:
            colours.update(re.findall(r"--([a-z0-9-]+): (#[0-9a-f]{6})", part))
    looks = [colours[f"map-{look}"] for look in LOOKS]
    assert all(contrast(*pair) > 1.35 for pair in combinations([*looks, colours["paper"]], 2))
    for frame in ("frame", "added", "changed", "gone"):
        assert contrast(colours[f"map-{frame}"], colours["paper"]) >= 3
    assert all(contrast(colours[f"map-{look}"], colours[f"on-{look}"]) >= 4.5 for look in LOOKS)


def test_readers_of_one_tensor_cost_in_proportion_to_their_number(monkeypatch: pytest.MonkeyPatch) -> None:
    """Counts the nodes that are described for the surroundings of all occurrences."""
    looked: list[int] = []
    original = surroundings.Surroundings.neighbours

    def neighbours(*arguments: object) -> list[int]:
        found = original(*arguments)  # type: ignore[arg-type]
        looked.append(len(found))
        return found

    monkeypatch.setattr(surroundings.Surroundings, "neighbours", neighbours)
    sums = []
    for count in (20, 200):
        looked.clear()
        report = onnxgraft.rewrite(fan(count), ["quant_conv"], seed=0, details="neighbours")
        assert len(report_page(report, most=10).partition("<article")[2]) < 200_000
        sums.append(sum(looked))
    assert sums[0] < sums[1] <= 12 * sums[0]
