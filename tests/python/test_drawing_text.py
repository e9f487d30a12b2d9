"""The patterns as the terminal shows them."""

import re

import pytest

from onnxgraft.catalogue import rows
from onnxgraft.drawing_text import draw_pair
from oracle.notation import parse_pair

PAIRS = [pair for row in rows().values() for pair in row.pairs]


@pytest.mark.parametrize(("pattern", "replacement"), PAIRS)
def test_every_node_and_tensor_is_shown(pattern: list[str], replacement: list[str]) -> None:
    text = draw_pair(pattern, replacement)
    assert max(map(len, text.splitlines())) <= 100
    pair = parse_pair(pattern, replacement)
    drawn = re.sub(r"\S+->\d+", "", text)
    for node in pair.pattern:
        assert node.op in drawn
    shown = set(re.findall(r"\d+", drawn))
    assert pair.ids <= shown
    # One arrow head for each input that is no initializer, one line to each tensor that nothing here reads.
    drawn_nodes = [*pair.pattern, *(e.node for e in pair.replacement)]
    inputs = [link for node in drawn_nodes for link in node.inputs if not link.initializer]
    assert drawn.count("▼") == len(inputs)


def test_a_pair_in_full() -> None:
    assert draw_pair(["Relu:0->1", "Mul:1,2i->3"], ["#1:0,101i->3"]).splitlines() == [
        "before             after",
        "  Relu:0->1          #1:0,101i->3",
        "  Mul:1,2i->3",
        "                      (0)",
        "    (0)                │",
        "     │             ╔═══▼════╗",
        "┌╌╌╌╌▼╌╌╌╌┐        ║ #1 Mul ║",
        "╎ #0 Relu ╎        ║  101+  ║",
        "└╌╌╌╌╌╌╌╌╌┘        ╚════════╝",
        "    │ 1                 │",
        "╔═══▼════╗             (3)",
        "║ #1 Mul ║",
        "║   2-   ║",
        "╚════════╝",
        "     │",
        "    (3)",
        "",
        "╔═╗ copied with other links   ┌╌┐ removed   + new initializer",
        "- initializer that these nodes read no more",
    ]
