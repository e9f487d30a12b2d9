"""A report as a page: counts, what did not match and why, then a card per occurrence."""

from __future__ import annotations

from collections.abc import Iterator, Mapping, Sequence
from dataclasses import dataclass

from onnxgraft.drawing.node_cards import State
from onnxgraft.report.account_page import account_section, row_id
from onnxgraft.report.account_records import FloatOperator
from onnxgraft.report.network_map import NetworkMap, NodeFinder, card_id, map_link
from onnxgraft.report.page import page, table, text
from onnxgraft.report.pictures import LEGEND, NodeKey, figure, key, listing
from onnxgraft.report.records import NodeText, Occurrence, PatternResult, Report, Step
from onnxgraft.report.report_table import refusals, remark

MOST_CARDS = 300
_KINDS = ("replaced", "refused")


@dataclass(frozen=True)
class _Group:
    """The occurrences of one pattern in one step that are either replaced or refused."""

    step: Step
    pattern: PatternResult
    kind: str
    entries: list[Occurrence]


def report_page(report: Report, *, most: int = MOST_CARDS) -> str:
    """The report as one HTML file.

    Args:
        report: Of a run with `details="neighbours"` for the nodes around; otherwise only the matched nodes are drawn.
        most: How many occurrences are shown; the page says how many are left out, of which transformation.
    """
    groups = _groups(report)
    shares = _shares(groups, most)
    shown = [(group, entry) for group, share in zip(groups, shares, strict=True) for entry in group.entries[:share]]
    places = _Places(report, [entry for _, entry in shown])
    cards = [
        _card(report, group, entry, number, places.of_card[number]) for number, (group, entry) in enumerate(shown)
    ]  # fmt: skip
    linked: dict[str, str] = {}  # step -> its first card
    for number, (group, _) in enumerate(shown):
        linked.setdefault(_name(group.step), card_id(number))
    title = f"Rewriting of {report.model}" if report.model else "Rewriting"
    parts = [
        *_warnings(report),
        account_section(report.account, places.of_operator),
        _summary(report, linked),
        *_refused(report),
        _prepared(report),
        *_nothing(report),
        _numbers(report),
        LEGEND,
    ]
    parts += _left_out(groups, shares)
    kinds = [kind for kind in _KINDS if any(group.kind == kind for group in groups)]
    content = "\n".join(filter(None, parts))
    return page(title, _facts(report), content, "occurrences", kinds, cards, picture=places.picture())


class _Places:
    """Where cards and rows of the page are on the map, and where nodes of the map lead.

    Attributes:
        of_card: The id on the map of the subject of each card; None if the map does not show it.
    """

    def __init__(self, report: Report, entries: Sequence[Occurrence]) -> None:
        self.of_card: list[str | None] = [None] * len(entries)
        self._map: NetworkMap | None = None
        self._targets: dict[int, str] = {}
        if report.change is None:
            return
        self._map = NetworkMap(report.change.network)
        self._find = NodeFinder(report.change.network)
        for number, entry in enumerate(entries):
            main = None
            for node in (*entry.after, *entry.before):
                found = self._find(node.op_type, node.name, node.outputs)
                if found is not None:
                    self._targets.setdefault(found, card_id(number))
                    main = found if main is None else main
            if main is None:  # a later step removed all of it
                around = (self._find(node.op_type, node.name, node.outputs) for node in entry.neighbours)
                main = next((found for found in around if found is not None), None)
                if main is not None:
                    self._targets.setdefault(main, card_id(number))
            self.of_card[number] = None if main is None else self._map.anchor(main)
        for number, one in enumerate(report.account.left if report.account is not None else ()):
            found = self._operator(one)
            row = row_id(number)
            if found is not None and row is not None:
                self._targets.setdefault(found, row)

    def of_operator(self, one: FloatOperator) -> tuple[str | None, str | None]:
        """Where an operator in float is on the map, and its card."""
        found = self._operator(one)
        if found is None or self._map is None:
            return None, None
        target = self._targets.get(found, "")
        return self._map.anchor(found), target if target.startswith("card") else None

    def _operator(self, one: FloatOperator) -> int | None:
        return None if one.place or self._map is None else self._find(one.op_type, one.name, (one.output,))

    def picture(self) -> str:
        """The map, or nothing if there is none."""
        return "" if self._map is None else self._map.html(self._targets)


def _groups(report: Report) -> list[_Group]:
    """Replaced occurrences, then refused ones; an occurrence that is refused in every round is shown once."""
    groups = []
    seen: set[object] = set()
    for step in report.steps:
        for pattern in step.patterns:
            entries: dict[str, list[Occurrence]] = {kind: [] for kind in _KINDS}
            for entry in pattern.occurrences:
                if entry.done:
                    continue
                place = (step.transformation, pattern.pattern, tuple(key(node) for node in entry.before))
                if entry.accepted or place not in seen:
                    entries["replaced" if entry.accepted else "refused"].append(entry)
                if not entry.accepted:
                    seen.add(place)
            groups += [_Group(step, pattern, kind, found) for kind, found in entries.items() if found]
    return sorted(groups, key=lambda group: _KINDS.index(group.kind))


def _shares(groups: list[_Group], most: int) -> list[int]:
    """How many of each group are shown: refusals get the room that replacements leave."""
    shares: list[int] = []
    for kind in _KINDS:
        counts = [len(group.entries) for group in groups if group.kind == kind]
        shares += fair_shares(counts, most - sum(shares))
    return shares


def _left_out(groups: list[_Group], shares: list[int]) -> Iterator[str]:
    missing: dict[str, int] = {}
    for group, share in zip(groups, shares, strict=True):
        if share < len(group.entries):
            name = f"{group.step.transformation} ({group.kind})"
            missing[name] = missing.get(name, 0) + len(group.entries) - share
    if missing:
        total = sum(len(group.entries) for group in groups)
        rest = ", ".join(f"{count} of {name}" for name, count in missing.items())
        yield (
            f'<p class="left-out">{sum(shares)} of {total} occurrences are shown below. Left out: {text(rest)}. '
            "<code>--report-cards N</code> makes room for N; a report as JSON has them all.</p>"
        )


def _facts(report: Report) -> list[str]:
    steps = report.steps
    facts = [f"{report.replaced} replaced", f"{report.refused} refused"]
    if steps:
        facts.append(f"{steps[0].nodes_before} → {steps[-1].nodes_after} nodes")
    facts.append("1 round" if report.rounds == 1 else f"{report.rounds} rounds")
    if report.stable is not None:
        facts.append("stable" if report.stable else "not stable yet")
    if report.seed is not None:
        facts.append(f"seed {report.seed}")
    return [*facts, f"onnx-graft {report.version}"] if report.version else facts


def _warnings(report: Report) -> Iterator[str]:
    for warning in report.warnings:
        yield f'<p class="note" role="note">{text(warning)}</p>'
    if report.filled is not None:
        yield "<ul>" + "".join(f"<li>{text(line)}</li>" for line in report.filled.lines()) + "</ul>"
    if any(step.random and step.replaced for step in report.steps):
        yield (
            '<p class="note" role="note">Weights, biases or scales were drawn at random: use the model to measure '
            "speed; its outputs mean nothing.</p>"
        )


def _refused(report: Report) -> Iterator[str]:
    """The reasons of all refusals, including those without a card."""
    if lines := list(refusals(report)):
        entries = "".join(f"<li>{text(line)}</li>" for line in lines)
        yield f'<h2>Refused</h2><ul class="reasons">{entries}</ul>'


def _summary(report: Report, linked: Mapping[str, str]) -> str:
    several = report.rounds > 1
    rows = []
    for step in report.steps:
        if not step.found and step.error is None and step.undone is None:
            continue
        counts = (step.found, step.replaced, step.refused, step.nodes_before, step.nodes_after)
        name = f"<code>{text(step.transformation)}</code>"
        if card := linked.get(_name(step)):
            name = f'<a href="#{card}">{name}</a>'
        rows.append(
            (
                name,
                *([str(step.round)] if several else []),
                *map(str, counts),
                f"{step.seconds:.2f}",
                text(remark(step)),
            )
        )
    headings = ("Found", "Replaced", "Refused", "Nodes before", "Nodes after", "Seconds", "")
    columns = ("Transformation", *(["Round"] if several else []), *headings)
    return f"<h2>Transformations</h2>{table(columns, rows, range(1, len(columns) - 1))}"


def _numbers(report: Report) -> str:
    """Collapsed, since networks have many."""
    if not report.numbers:
        return ""
    rows = [
        (
            f"<code>{text(one.name)}</code>",
            f"<code>{text(one.output)}</code>",
            f"{one.scale:.6g}",
            f"{one.offset:g}",
            f"{one.low:.4g} … {one.high:.4g}",
            "" if one.saturated is None else f"{one.saturated:.2%}",
            str(one.bits) if one.bits else "",
        )
        for one in report.numbers
    ]
    headings = ("Operator", "Writes", "Scale", "Offset", "Not cut off", "Cut off", "Bits of sums")
    return (
        f"<details><summary>Quantized operators: {len(rows)}</summary>{table(headings, rows, range(2, 7))}"
        '<p class="what">Bits: the most that sums can need, whatever the inputs are. '
        "<code>onnxgraft verify --data … --per-tensor</code> measures what they need on data.</p></details>"
    )


def _prepared(report: Report) -> str:
    changed = [step for step in report.prepared if step.changed]
    if not changed:
        return ""
    rows = [(f"<code>{text(step.name)}</code>", str(step.changed), f"{step.seconds:.2f}") for step in changed]
    return f"<h2>Preparation</h2>{table(('Step', 'Places', 'Seconds'), rows, [1, 2])}"


def _nothing(report: Report) -> Iterator[str]:
    """Transformations that matched nothing in any round, with what came closest."""
    found = {step.transformation for step in report.steps if step.found}
    failed = {step.transformation for step in report.steps if step.error is not None}
    idle = {one.transformation: one for one in reversed(report.steps) if one.transformation not in found | failed}
    if not idle:
        return
    rows = []
    for name, step in reversed(idle.items()):
        misses = dict.fromkeys(text(pattern.nearest_miss) for pattern in step.patterns if pattern.nearest_miss)
        rows.append((f"<code>{text(name)}</code>", "<br>".join(misses) or "no node of the pattern"))
    content = table(("Transformation", "What came closest"), rows)
    number = "1 transformation" if len(rows) == 1 else f"{len(rows)} transformations"
    yield f"<h2>Nothing found</h2><details><summary>{number}: what came closest</summary>{content}</details>"


def _name(step: Step) -> str:
    return f"{step.transformation}-{step.round}"


def _card(report: Report, group: _Group, entry: Occurrence, number: int, on_map: str | None) -> str:
    step, pattern, kind = group.step, group.pattern, group.kind
    nodes = entry.before or entry.after
    place = next((node.name or next(iter(node.outputs), "") for node in nodes), "")
    of_round = f", round {step.round}" if report.rounds > 1 else ""
    parts = [
        f'<article id="{card_id(number)}" data-kind="{kind}" tabindex="-1">',
        f'<h3><span class="badge {kind}">{kind}</span>{text(step.transformation)}{of_round} at '
        f"<code>{text(place)}</code>{map_link(on_map)}</h3>",
        f'<p class="what"><code>{text("  ".join(pattern.pattern))}</code> ⇒ '
        f"<code>{text('  '.join(pattern.replacement)) or 'nothing'}</code></p>",
    ]
    if not entry.accepted:
        reason = entry.reason or "the callback gave no reason"
        parts.append(f'<p class="note">Refused: {text(reason)}</p>')
    if nodes:
        parts += [*_figures(entry, pattern), _listing(entry)]
    return "\n".join([*parts, "</article>"])


def _figures(entry: Occurrence, pattern: PatternResult) -> Iterator[str]:
    old, new = _states(entry.before, entry.after)
    captions = ("before", "after")
    if not entry.accepted:
        captions, old = ("as it stays", "what was refused"), {}
    yield '<div class="pair">'
    for caption, nodes, states in zip(captions, (entry.before, entry.after), (old, new), strict=True):
        if nodes or entry.accepted:
            constants = _Constants(entry, pattern, nodes)
            yield figure(caption, nodes, entry.neighbours, entry.shapes, constants, states)
    yield "</div>"


def _listing(entry: Occurrence) -> str:
    sides = [("before", entry.before), ("after", entry.after), ("around", entry.neighbours)]
    return listing(sides, dict.fromkeys(("before", "after", "around"), entry.shapes))


class _Constants:
    """Which tensors are initializers, as far as pattern, position and the nodes around them show."""

    def __init__(self, entry: Occurrence, pattern: PatternResult, nodes: tuple[NodeText, ...]) -> None:
        ids = {link for line in pattern.pattern for link in line.partition(":")[2].partition("->")[0].split(",")}
        self._constants = {entry.links.get(name[:-1], entry.links.get(name)) for name in ids if name.endswith("i")}
        self._data = {entry.links.get(name) for name in ids if not name.endswith("i")}
        self._data |= {name for node in (*nodes, *entry.neighbours) for name in node.outputs}

    def __call__(self, name: str, position: int) -> bool:
        return name in self._constants or (position > 0 and name not in self._data)


def _states(
    before: tuple[NodeText, ...], after: tuple[NodeText, ...]
) -> tuple[dict[NodeKey, State], dict[NodeKey, State]]:
    """Equal nodes stay, those of one operator and name are changed, others are removed or added."""
    old, new = {key(node) for node in before}, {key(node) for node in after}
    names = [{(node.op_type, node.name) for node in side if node.name} for side in (before, after)]
    changed = names[0] & names[1]

    def state(node: NodeText, others: set[NodeKey], otherwise: State) -> State:
        if key(node) in others:
            return "kept"
        return "changed" if (node.op_type, node.name) in changed else otherwise

    return (
        {key(node): state(node, new, "removed") for node in before},
        {key(node): state(node, old, "added") for node in after},
    )


def fair_shares(counts: Sequence[int], most: int) -> list[int]:
    """How many of each group, at most `most` together: small groups whole, large ones in equal numbers."""
    shares = [0] * len(counts)
    left = most
    order = sorted(range(len(counts)), key=lambda k: counts[k])
    for place, k in enumerate(order):
        shares[k] = min(counts[k], left // (len(order) - place))
        left -= shares[k]
    return shares
