"""The patterns as the terminal shows them."""

import re

import pytest

from onnxgraft.catalogue import rows
from onnxgraft.drawing.terminal import draw_pair
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
    # One arrow head for each input that is not an initializer, in the upper edge of a box and below a line.
    drawn_nodes = [*pair.pattern, *(e.node for e in pair.replacement)]
    inputs = [link for node in drawn_nodes for link in node.inputs if not link.initializer]
    rows_of_text = text.splitlines()
    heads = [(y, x) for y, row in enumerate(rows_of_text) for x, sign in enumerate(row) if sign == "▼"]
    assert len(heads) == len(inputs)
    for y, x in heads:
        assert rows_of_text[y - 1][x] in "│├┤┬┼┌┐"
        assert rows_of_text[y][x - 1] in "─╌═━"
    # Upper left corners show the fate of a node; the legend has one more of each.
    copies = sum(entry.source is not None and not entry.kept for entry in pair.replacement)
    new = sum(entry.source is None for entry in pair.replacement)
    gone = len(pair.pattern) - len(pair.kept | pair.copied)
    for corner, number in (("╔", copies + len(pair.copied - pair.kept)), ("┏", new), ("┌╌", gone)):
        assert text.count(corner) == number + bool(number)
