"""A difference of two models as a page: counts and tables, then a card per region."""

from __future__ import annotations

from collections.abc import Iterator, Sequence

from onnxgraft.comparison.result import GraphDiff, Region, RegionSide, ValueChange
from onnxgraft.comparison.summary import headline, kinds
from onnxgraft.drawing.node_cards import State
from onnxgraft.report.network_map import NetworkMap, card_id, map_link
from onnxgraft.report.page import page, table, text
from onnxgraft.report.pictures import LEGEND, NodeKey, figure, key, listing

MOST_CARDS = 300
_MOST_ROWS = 2000
_MOST_CHANGES = 20


def diff_page(diff: GraphDiff, *, most: int = MOST_CARDS) -> str:
    """The difference as one HTML file.

    Args:
        diff: The result of `onnxgraft.diff`.
        most: How many regions are shown; the page says how many are left out.
    """
    regions = diff.regions
    parts = [_operators(diff)]
    for title, values in (("Inputs", diff.inputs), ("Outputs", diff.outputs), ("Initializers", diff.initializers)):
        parts += _values(title, values)
    parts += [f'<p class="note">{text(line)}</p>' for line in diff.model]
    parts.append(LEGEND)
    if len(regions) > most:
        parts.append(f'<p class="left-out">The first {most} of {len(regions)} regions are shown below.</p>')
    places, picture = _map(diff, regions[:most])
    cards = [
        _card(number, region, place)
        for number, (region, place) in enumerate(zip(regions[:most], places, strict=True), 1)
    ]
    content = "\n".join(filter(None, parts))
    return page("Difference of two models", _facts(diff), content, "regions", [], cards, picture=picture)


def _map(diff: GraphDiff, regions: Sequence[Region]) -> tuple[list[str | None], str]:
    """For each card the id of its first node on the map; and the map, whose nodes lead to the cards."""
    places: list[str | None] = [None] * len(regions)
    if diff.change is None:
        return places, ""
    network = diff.change.network
    drawn = NetworkMap(network)
    targets: dict[int, str] = {}
    for number, region in enumerate(regions):
        nodes = [network.of_before[node.index] for node in region.removed if node.index is not None]
        nodes += [network.of_after[node.index] for node in region.after.nodes if node.index is not None]
        targets.update(dict.fromkeys(nodes, card_id(number + 1)))
        places[number] = drawn.anchor(min(nodes)) if nodes else None
    return places, drawn.html(targets)


def _facts(diff: GraphDiff) -> list[str]:
    changed = sum(len(region.changes) for region in diff.regions)
    removed, added = sum(len(r.removed) for r in diff.regions), sum(len(r.added) for r in diff.regions)
    if diff.is_empty:
        return [f"no difference: {diff.nodes_before} nodes each"]
    return [
        f"{diff.nodes_before} → {diff.nodes_after} nodes",
        f"{removed} removed",
        f"{added} added",
        f"{changed} changed",
        f"{diff.unchanged} unchanged",
        "1 region" if len(diff.regions) == 1 else f"{len(diff.regions)} regions",
    ]


def _operators(diff: GraphDiff) -> str:
    if not diff.operators:
        return ""
    rows = [
        (f"<code>{text(name)}</code>", str(old), str(new), f"{new - old:+d}")
        for name, (old, new) in sorted(diff.operators.items())
    ]
    return f"<h2>Operators</h2>{table(('Operator', 'Before', 'After', ''), rows, [1, 2, 3])}"


def _values(title: str, values: Sequence[ValueChange]) -> Iterator[str]:
    if not values:
        return
    rows = [
        tuple(f"<code>{text(entry)}</code>" if entry else "" for entry in (value.name, value.before, value.after))
        for value in values[:_MOST_ROWS]
    ]
    more = len(values) - _MOST_ROWS
    rest = f'<p class="left-out">… and {more} more</p>' if more > 0 else ""
    content = table(("Name", "Before", "After"), rows) + rest
    is_long = len(values) > 8
    heading = f"{title}: {kinds(values)}"
    yield (
        f"<details><summary>{text(heading)}</summary>{content}</details>"
        if is_long
        else f"<h2>{text(heading)}</h2>{content}"
    )


def _card(number: int, region: Region, on_map: str | None) -> str:
    changed = tuple(change.after for change in region.changes)
    nodes = changed or region.removed or region.added
    place = nodes[0].name or next(iter(nodes[0].outputs), "")
    changes = [f"<li><code>{text(c.after.label)}</code>: {text('; '.join(c.what))}</li>" for c in region.changes]
    more = len(changes) - _MOST_CHANGES
    rest = f"<li>… and {more} more</li>" if more > 0 else ""
    what = f'<ul class="what">{"".join(changes[:_MOST_CHANGES])}{rest}</ul>' if changes else ""
    sides = [("before", region.before.nodes), ("after", region.after.nodes)]
    return "\n".join(
        [
            f'<article id="{card_id(number)}" data-kind="region" tabindex="-1">',
            f'<h3><span class="badge region">{number}</span>at <code>{text(place)}</code>{map_link(on_map)}</h3>',
            f'<p class="what">{text(headline(region))}</p>',
            what,
            '<div class="pair">',
            _figure("before", region.before, _states(region, before=True)),
            _figure("after", region.after, _states(region, before=False)),
            "</div>",
            listing(sides, {"before": region.before.shapes, "after": region.after.shapes}),
            "</article>",
        ]
    )


def _figure(caption: str, side: RegionSide, states: dict[NodeKey, State]) -> str:
    return figure(caption, side.nodes, side.neighbours, side.shapes, lambda name, _: name in side.constants, states)


def _states(region: Region, *, before: bool) -> dict[NodeKey, State]:
    if before:
        gone: State = "removed"
        nodes, changed = region.removed, [change.before for change in region.changes]
    else:
        gone = "added"
        nodes, changed = region.added, [change.after for change in region.changes]
    states: dict[NodeKey, State] = {key(node): gone for node in nodes}
    states.update({key(node): "changed" for node in changed})
    return states
