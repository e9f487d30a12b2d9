"""A network as a map that opens a page: an SVG picture of all nodes, and lines of data for the page's script.

The picture works without the script: a node with a card is a link. Nodes of one look share one path, since thousands of
elements would take a browser seconds. Texts of nodes are only in the data; the script shows them if they are large
enough to be read.
"""

from __future__ import annotations

from collections.abc import Iterable, Iterator, Mapping, Sequence

from onnxgraft.drawing.network_blocks import Block, block_edges, blocks_of
from onnxgraft.drawing.network_layout import NODE_HEIGHT, NODE_WIDTH, lay_out
from onnxgraft.report.network import Network, NetworkNode
from onnxgraft.report.page import text

MOST_NODES = 5000  # a larger network is drawn as blocks
_BLOCKS = 1200
_MOST_TARGETS = 20  # cards that are named for one block
_LEAST_WIDTH, _LEAST_HEIGHT = 760, 200  # of the part that is visible at first: small networks are not enlarged

# In the order in which a block's bar shows them. Looks of nodes are a kind, or "removed", and a fate.
LOOKS = {
    "int8": "INT8",
    "float": "float operator",
    "quantize": "quantize",
    "dequantize": "dequantize",
    "other": "other operator",
    "removed": "removed",
}
_FATES = ("kept", "changed", "added", "removed")


def card_id(number: int) -> str:
    """The id of a card on the page."""
    return f"card-{number}"


def map_link(anchor: str | None) -> str:
    """The link from a card's title to the map; empty if the map does not show the subject of the card."""
    return "" if anchor is None else f' <a class="to-map" href="#{anchor}">on the map</a>'


_BUTTONS = (
    '<div class="map-buttons" hidden><button type="button" value="+" title="closer (+)">+</button>'
    '<button type="button" value="-" title="farther (-)">&minus;</button>'
    '<button type="button" value="0" title="all (0)">all</button></div>'
)
_KEYS = (
    '<p class="map-keys" hidden>Click or <kbd>Enter</kbd>: to the card. Drag or arrow keys: move. '
    "Wheel, pinch, <kbd>+</kbd> <kbd>-</kbd>: closer, farther (the wheel once the map has the focus, or with Ctrl). "
    "<kbd>0</kbd>: all. <kbd>n</kbd> <kbd>p</kbd>: next, previous node with a card.</p>"
)


class NetworkMap:
    """The layout of a network, and the element for each node.

    Attributes:
        network: The network to draw.
    """

    def __init__(self, network: Network, *, most: int = MOST_NODES) -> None:
        self.network = network
        nodes, edges = network.nodes, network.edges
        self._blocks: list[Block] = []
        self._block_of: list[int] = []
        if len(nodes) > most:
            self._blocks = blocks_of([node.name or node.output for node in nodes], _BLOCKS)
            self._block_of = [number for number, one in enumerate(self._blocks) for _ in range(one.start, one.stop)]
            edges = block_edges(self._blocks, edges)
        self._layout = lay_out(len(self._blocks) or len(nodes), edges)

    def anchor(self, node: int) -> str:
        """The id of a node's element on the map: the node itself, or its block."""
        return f"block-{self._block_of[node]}" if self._blocks else f"node-{node}"

    def html(self, targets: Mapping[int, str]) -> str:
        """The map; `targets` has the ids on the page that nodes link to."""
        layout, network = self._layout, self.network
        if not network.nodes:
            return ""
        width, height = max(layout.width, _LEAST_WIDTH), max(layout.height, _LEAST_HEIGHT)
        left, top = (layout.width - width) // 2, (layout.height - height) // 2
        shapes = self._bars() if self._blocks else _rectangles(zip(layout.x, layout.y, network.nodes, strict=True))
        links, lines = self._block_parts(targets) if self._blocks else self._node_parts(targets)
        what = f"{len(network.nodes)} nodes"
        if self._blocks:
            what += f" in {len(self._blocks)} blocks of consecutive nodes, cut between modules if names show them"
        return (
            f'<section class="map" id="map" aria-label="Map of the network">\n'
            f'<div class="map-head"><h2>The whole network</h2>{_BUTTONS}</div>\n'
            f'<div class="map-view"><svg viewBox="{left} {top} {width} {height}" role="group" tabindex="0" '
            f'data-node="{NODE_WIDTH} {NODE_HEIGHT}" aria-label="Map of {text(what)}">\n'
            f'<path class="far" d="{layout.far}"/><path class="near" d="{layout.near}"/>\n{shapes}\n'
            f'<g class="links">{"".join(links)}</g></svg>\n'
            "</div>\n"
            f'<p class="map-says"><output id="map-says">{text(what)}</output></p>\n{self._legend()}\n'
            f"{_KEYS}\n"
            f'<pre id="map-data" hidden>{chr(10).join(lines)}</pre>\n</section>'
        )

    def _legend(self) -> str:
        """How many nodes there are of each look and fate."""
        kinds, fates = self.network.counts("kind"), self.network.counts("fate")
        rows = [(f"look-{look}", LOOKS[look], kinds.get(look, 0)) for look in LOOKS if look in kinds]
        names = {"removed": "look-removed", "added": "fate-added", "changed": "fate-changed"}
        if not self._blocks or fates.get("removed"):
            rows += [(names[fate], fate, fates[fate]) for fate in ("added", "changed", "removed") if fates.get(fate)]
        entries = "".join(f'<li class="{cls}"><i></i>{text(name)} {count}</li>' for cls, name, count in rows)
        return f'<ul class="map-legend">{entries}</ul>'

    def _node_parts(self, targets: Mapping[int, str]) -> tuple[list[str], list[str]]:
        links, lines = [], []
        looks = list(LOOKS)
        for k, node in enumerate(self.network.nodes):
            place, target = (self._layout.x[k], self._layout.y[k]), targets.get(k, "")
            if target:
                links.append(_link(f"node-{k}", target, place, node.label))
            name = text(node.name or f"→ {node.output}")
            style = f"{looks.index(_look(node))}{_FATES.index(node.fate)}"
            lines.append(f"{place[0]},{place[1]}\t{style}\t{target}\t{text(node.op_type)}\t{name}")
        return links, lines

    def _block_parts(self, targets: Mapping[int, str]) -> tuple[list[str], list[str]]:
        links, lines = [], []
        for number, block in enumerate(self._blocks):
            place = (self._layout.x[number], self._layout.y[number])
            nodes = self.network.nodes[block.start : block.stop]
            found = list(dict.fromkeys(targets[k] for k in range(block.start, block.stop) if k in targets))
            counts = ", ".join(f"{count} {LOOKS[look]}" for look, count in _counts(nodes).items() if count)
            if found:
                links.append(_link(f"block-{number}", found[0], place, f"{block.label}: {counts}"))
            shown = ",".join(found[:_MOST_TARGETS])
            title = text(f"{len(nodes)} nodes")
            lines.append(f"{place[0]},{place[1]}\tb\t{shown}\t{title}\t{text(block.label)}\t{text(counts)}")
        return links, lines

    def _bars(self) -> str:
        """Each block as a bar with a part for each look, with a width in proportion to its share of the nodes."""
        paths: dict[str, list[str]] = {}
        for number, block in enumerate(self._blocks):
            x, y = self._layout.x[number], self._layout.y[number]
            counts = _counts(self.network.nodes[block.start : block.stop])
            start = done = 0
            for look, count in counts.items():
                done += count
                stop = round(NODE_WIDTH * done / (block.stop - block.start))
                if stop > start:
                    paths.setdefault(look, []).append(_rectangle(x + start, y, stop - start))
                start = stop
            paths.setdefault("frame", []).append(_rectangle(x, y))
        frame = "".join(paths.pop("frame"))
        parts = [f'<path class="look-{look} bar" d="{"".join(found)}"/>' for look, found in paths.items()]
        return "".join([*parts, f'<path class="frame" d="{frame}"/>'])


def _rectangles(placed: Iterable[tuple[int, int, NetworkNode]]) -> str:
    paths: dict[str, list[str]] = {}
    for x, y, node in placed:
        style = f"look-{_look(node)}" + (f" fate-{node.fate}" if node.fate in ("added", "changed") else "")
        paths.setdefault(style, []).append(_rectangle(x, y))
    # Marked nodes are drawn last, so that no neighbour covers their frame.
    return "".join(f'<path class="{style}" d="{"".join(paths[style])}"/>' for style in sorted(paths, key=len))


def _rectangle(x: int, y: int, width: int = NODE_WIDTH) -> str:
    return f"M{x} {y}h{width}v{NODE_HEIGHT}h-{width}z"


def _link(own: str, target: str, place: tuple[int, int], label: str) -> str:
    return (
        f'<a id="{own}" href="#{text(target)}"><path d="{_rectangle(*place)}"/><title>{text(label)}</title></a>'
    )  # fmt: skip


def _look(node: NetworkNode) -> str:
    return "removed" if node.fate == "removed" else node.kind


def _counts(nodes: Sequence[NetworkNode]) -> dict[str, int]:
    counts = dict.fromkeys(LOOKS, 0)
    for node in nodes:
        counts[_look(node)] += 1
    return counts


class NodeFinder:
    """Finds the nodes of a map from texts about them."""

    def __init__(self, network: Network) -> None:
        self._known: dict[tuple[str, str, str], int] = {}
        for index, node in enumerate(network.nodes):
            for key in _keys(node.op_type, node.name, node.output):
                self._known.setdefault(key, index)

    def __call__(self, op_type: str, name: str, outputs: Iterable[str]) -> int | None:
        """The node of that operator that writes the same tensor, or has the same name."""
        keys = _keys(op_type, name, next(filter(None, outputs), ""))
        return next((self._known[key] for key in keys if key in self._known), None)


def _keys(op_type: str, name: str, output: str) -> Iterator[tuple[str, str, str]]:
    if name and output:
        yield op_type, name, output
    if output:
        yield op_type, "", output
    if name:
        yield op_type, name, ""
