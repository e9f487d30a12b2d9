"""Pages contain all their data, escape it, respect their limits, and run in a browser without an error."""

import re
import shutil
import subprocess
from html.parser import HTMLParser
from itertools import pairwise
from pathlib import Path

import onnx
import pytest

from helpers.models import make_model
from onnxgraft.comparison import diff
from onnxgraft.comparison.diff_page import diff_page
from onnxgraft.drawing.node_cards import Card, draw_cards, shorten
from onnxgraft.report.records import NodeText, Occurrence, PatternResult, Report, Step
from onnxgraft.report.report_page import fair_shares, report_page

BROWSER = next(filter(None, map(shutil.which, ("chromium", "chromium-browser", "google-chrome"))), None)
NASTY = '</script></title><img src=x onerror="alert(1)">&\'"\n\x00ключ漢\u202e\ud800'


def node(op: str, name: str, inputs: str, output: str) -> NodeText:
    return NodeText(0, op, "", name, tuple(inputs.split()), (output,), {"axis": name})


def report(name: str = "conv", count: int = 1) -> Report:
    """Two transformations of `count` occurrences, one of them refused; a third that found nothing."""
    before = (node("Conv", name, "x w", "y"),)
    after = (node("Q", f"{name}_q", "x", "q"), node("Conv", name, "q w", "y"))
    shapes = {"w": "float32[2,2,3,3]"}
    accepted = Occurrence(True, None, before, after, {"0": "x", "1": "w"}, (node("Relu", name, "y", "z"),), shapes)
    refused = [Occurrence(False, name, (node("Add", f"{name}{k}", "x y", "z"),)) for k in range(count)]
    replacement = ("Q:0->3", "#0:3,1i->2")
    patterns = [
        PatternResult(("Conv:0,1i->2",), replacement, count, count, 0, 0.1, [accepted] * count),
        PatternResult(("Add:0,1->2",), (), count, 0, count, 0.1, refused),
        PatternResult(("Mul:0,1->2",), (), nearest_miss=f"nearest {name}"),
    ]
    steps = [Step(f"step_{k}", "C", 1, 1, 2, 0.1, [pattern], k == 0) for k, pattern in enumerate(patterns)]
    return Report(name, 0, [], steps, 1, None, [name], "1")


def nasty_model() -> onnx.ModelProto:
    made = make_model(["Relu:1->2", "Conv:2,3i,4i->5"])
    made.graph.node[0].op_type = "Tanh"
    for entry in made.graph.node:
        entry.name = NASTY[:-1]
    return made


class Reader(HTMLParser):
    """Tags, and the text outside of script and style."""

    def __init__(self, content: str) -> None:
        super().__init__()
        self.tags: list[str] = []
        self.text = ""
        self.feed(content)

    def handle_starttag(self, tag: str, attrs: list[tuple[str, str | None]]) -> None:
        self.tags.append(tag)
        for name, value in attrs:
            assert not name.startswith("on")
            assert name not in {"src", "href"} or str(value).startswith(("#", "data:"))

    def handle_data(self, data: str) -> None:
        self.text += data


@pytest.mark.parametrize(
    "page", [report_page(report(NASTY)), diff_page(diff(make_model(["Relu:1->2", "Conv:2,3i,4i->5"]), nasty_model()))]
)
def test_texts_of_models_stay_texts(page: str) -> None:
    page.encode()
    read = Reader(page)
    assert "img" not in read.tags
    assert read.tags.count("script") == 1
    assert '</script></title><img src=x onerror="alert(1)">&\'"␊␀ключ漢' in read.text


def test_a_report_shows_every_occurrence_and_why_not() -> None:
    read = Reader(report_page(report()))
    assert read.tags.count("article") == 2
    for text in ("nearest conv", "Refused: conv", "float32[2,2,3,3]", "drawn at random", "conv_q"):
        assert text in read.text


def test_large_reports_are_capped_and_say_so() -> None:
    page = report_page(report(count=500), most=300)
    assert page.count("<article") == 300
    assert "300 of 1000 occurrences are shown" in page
    assert "200 of step_0 (replaced), 500 of step_1 (refused)" in page
    assert fair_shares([500, 3, 500], 103) == [50, 3, 50]


def test_a_large_region_is_drawn_in_part() -> None:
    before = make_model([f"Relu:{k}->{k + 1}" for k in range(1, 60)])
    after = make_model([f"LeakyRelu:{k}->{k + 1}" for k in range(1, 60)])
    page = diff_page(diff(before, after))
    assert "the first 30 of 59 nodes" in page
    assert page.count('class="card removed"') == 30


def test_cards_are_apart_whatever_their_graph() -> None:
    """A node that reads itself, one tensor twice, a long path around, several outputs, names of any length."""
    cards = [
        Card("Split", "n" * 99, ("x",), ("a", "b", ""), "kept"),
        Card("Loop", "漢" * 40, ("a", "c"), ("c",), "removed"),
        Card("Add", "", ("b", "b"), ("d",), "added", (("w", "v" * 99, "tip"),)),
        Card("Concat", "", ("a", "b", "c", "d", "x|y"), ("e",), "changed"),
    ]
    picture, width = draw_cards(cards, {"a": "float32[1]", "x|y": "int8[2]"}, "title")
    pattern = r'<rect x="([\d.-]+)" y="([\d.-]+)" width="([\d.]+)"'
    boxes = sorted((float(y), float(x), float(w)) for x, y, w in re.findall(pattern, picture))
    assert len(boxes) == len(cards) + 4  # pills: x, x|y, e, and c where Loop reads itself
    for (y, x, w), (next_y, next_x, _) in pairwise(boxes):
        assert y != next_y or x + w < next_x
        assert 0 <= x < x + w <= width
    assert len(shorten("漢" * 40, 30)) <= 16
    ring = [Card("A", "a", ("z", "x"), ("y",), "kept"), Card("B", "b", ("y", "y"), ("z",), "kept")]
    picture, _ = draw_cards(ring, {}, "ring")
    assert [picture.count(f'class="{kind}') for kind in ("card", "pill")] == [2, 2]  # x, and z where the ring is cut


def run_in_browser(content: str, folder: Path, fragment: str = "") -> str:
    """The page after its scripts have run; the console, which is on the error stream, stays empty."""
    path = folder / "page.html"
    path.write_text(content)
    options = ["--headless", "--no-sandbox", "--disable-gpu", "--enable-logging=stderr", "--dump-dom"]
    command = [str(BROWSER), *options, f"--user-data-dir={folder / 'profile'}", path.as_uri() + fragment]
    run = subprocess.run(command, capture_output=True, timeout=300, text=True)
    assert "CONSOLE" not in run.stderr
    return run.stdout


@pytest.mark.skipif(BROWSER is None, reason="no browser")
def test_a_browser_runs_the_page_without_an_error(tmp_path: Path) -> None:
    """The script finally shows the number of visible cards."""
    assert "6 shown" in run_in_browser(report_page(report(NASTY, 3)), tmp_path)


@pytest.mark.skipif(BROWSER is None, reason="no browser")
def test_a_link_to_the_map_shows_the_node(tmp_path: Path) -> None:
    """The script finds the node, describes it, and zooms in to it."""
    chain = [f"Relu:{k}->{k + 1}" for k in range(1, 200)]
    page = diff_page(diff(make_model(chain), make_model([*chain[:100], "Tanh:101->102", *chain[101:]])))
    node = re.search(r'<a class="to-map" href="#(node-\d+)"', page)
    assert node is not None
    shown = run_in_browser(page, tmp_path, f"#{node[1]}")
    assert re.search(r'<output id="map-says">(Relu|Tanh) · [^<]* · (removed|added) · <a href="#card-1">card', shown)
    widths = [float(re.findall(r'<svg viewBox="\S+ \S+ (\S+)', content)[0]) for content in (page, shown)]
    assert widths[1] < widths[0]
    assert 'class="spot"' in shown
