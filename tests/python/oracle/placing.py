"""Positions of the nodes of a replacement: first a place for each, then the order is corrected.

Works on whole lists of items and never on a graph, so undoing refused occurrences is the same computation without them.
"""

from collections.abc import Collection, Iterable, Sequence
from dataclasses import dataclass

from onnx import NodeProto

from .names import reads
from .notation import Pair


@dataclass(eq=False)
class Item:
    """A node being placed; `origin` is its index at the start of the pass as long as it is the same node."""

    node: NodeProto
    origin: int | None = None


@dataclass(eq=False)
class Occurrence:
    """The matched items by pattern position, the items of the replacement by replacement position."""

    matched: list[Item]
    made: list[Item]
    removed: list[Item]


class _Group:
    """The nodes at the place of one matched item: copies, then new nodes, the item itself, new nodes."""

    def __init__(self) -> None:
        self.copies: list[Item] = []
        self.front: list[Item] = []
        self.after: list[Item] = []

    def beside(self, neighbour: Item, item: Item, offset: int) -> bool:
        for row in (self.copies, self.front, self.after):
            if neighbour in row:
                row.insert(row.index(neighbour) + offset, item)
                return True
        return False


def _groups(pair: Pair, occurrence: Occurrence) -> dict[Item, _Group]:
    groups = {item: _Group() for item in occurrence.matched}
    entries, made = pair.replacement, occurrence.made
    for entry, item in zip(entries, made, strict=True):
        if not entry.kept and entry.source is not None:
            groups[occurrence.matched[entry.source]].copies.append(item)
    for position, (entry, item) in enumerate(zip(entries, made, strict=True)):
        if entry.source is not None:
            continue
        following = next((p for p in range(position, len(entries)) if entries[p].source is not None), None)
        if following is not None and entries[following].kept:
            groups[made[following]].front.append(item)
        elif following is not None:
            any(group.beside(made[following], item, 0) for group in groups.values())
        elif position == 0:
            groups[occurrence.matched[-1]].front.append(item)
        elif entries[position - 1].kept:
            groups[made[position - 1]].after.insert(0, item)
        else:
            any(group.beside(made[position - 1], item, 1) for group in groups.values())
    return groups


def _placed(pair: Pair, order: Sequence[Item], occurrences: Iterable[Occurrence]) -> list[Item]:
    rows = {item: _Group() for item in order}
    gone: set[Item] = set()
    for occurrence in occurrences:
        gone |= set(occurrence.removed)
        for anchor, group in _groups(pair, occurrence).items():
            rows[anchor].copies += group.copies
            rows[anchor].front += group.front
            rows[anchor].after += group.after
    result: list[Item] = []
    for item in order:
        row = rows[item]
        result += row.copies + row.front + ([] if item in gone else [item]) + row.after
    return result


def _put_right(placed: Sequence[Item], before: Sequence[Item]) -> list[Item]:
    index = {item: position for position, item in enumerate(placed)}
    old = {item: position for position, item in enumerate(before)}
    first_writer: dict[str, Item] = {}
    for item in placed:
        for name in filter(None, item.node.output):
            first_writer.setdefault(name, item)

    result: list[Item] = []
    begun: set[Item] = set()

    def emit(item: Item) -> None:
        begun.add(item)
        producers = {first_writer[name] for name in reads(item.node) if name in first_writer}
        for producer in sorted(producers, key=index.__getitem__):
            stays = item in old and producer in old
            if producer not in begun and not (stays and old[producer] > old[item]):
                emit(producer)
        result.append(item)

    for item in placed:
        if item not in begun:
            emit(item)
    return result


def splice(pair: Pair, order: Sequence[Item], occurrences: Collection[Occurrence]) -> list[Item]:
    """The order after all these occurrences; without any it is the old one."""
    return _put_right(_placed(pair, order, occurrences), order) if occurrences else list(order)
