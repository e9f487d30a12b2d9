"""The account of a run as part of a page: what is INT8, and why the rest stayed in float."""

from __future__ import annotations

from collections.abc import Callable

from onnxgraft.report.account_records import Account, FloatOperator
from onnxgraft.report.page import table, text

_MOST_ROWS = 500
_FOLDED_FROM = 13  # more rows would push the rest of the page off the screen

# The anchors that an operator's row links to: its place on the map and its card; either may be missing.
Anchors = Callable[[FloatOperator], tuple[str | None, str | None]]


def row_id(number: int) -> str | None:
    """The id of the row of the operator of that number in `Account.left`; None if the page omits it."""
    return f"float-{number}" if number < _MOST_ROWS else None


def account_section(account: Account | None, anchors: Anchors) -> str:
    """Coverage by operator, then each operator in float with its reason; empty if there is nothing to count."""
    if account is None or not (account.operators or account.left):
        return ""
    parts = ["<h2>What is INT8, and what stayed in float</h2>"]
    if account.share is not None:
        known = "known " if any(one.unknown_macs for one in account.operators.values()) else ""
        parts.append(f'<p class="what">{100 * account.share:.1f} % of the {known}multiply-adds are INT8.</p>')
    parts.append(_coverage(account))
    if account.left:
        rows = [_row(number, one, anchors) for number, one in enumerate(account.left[:_MOST_ROWS])]
        content = table(("Operator", "Why it stayed in float", "Multiply-adds"), rows, [2])
        if (more := len(account.left) - _MOST_ROWS) > 0:
            content += f'<p class="left-out">… and {more} more; the report as JSON has them all.</p>'
        reasons = ", ".join(f"{count} {reason.replace('_', ' ')}" for reason, count in account.reasons.items())
        state = "" if len(account.left) >= _FOLDED_FROM else " open"
        summary = f"{len(account.left)} in float: {reasons}"
        parts.append(f"<details{state}><summary>{text(summary)}</summary>{content}</details>")
    return "".join(parts)


def _coverage(account: Account) -> str:
    rows = [
        (
            f"<code>{text(op)}</code>",
            str(one.int8),
            str(one.float),
            f"{one.int8_macs:,}",
            f"{one.float_macs:,}",
            str(one.unknown_macs or ""),
        )
        for op, one in account.operators.items()
    ]
    headings = ("Operator", "INT8", "Float", "Multiply-adds INT8", "Multiply-adds float", "Of unknown shape")
    return table(headings, rows, range(1, 6)) if rows else ""


def _row(number: int, one: FloatOperator, anchors: Anchors) -> tuple[str, ...]:
    on_map, card = anchors(one)
    label = f"<code>{text(one.label)}</code>"
    if on_map is not None:
        label = f'<a href="#{on_map}">{label}</a>'
    place = f" in {text(one.place)}" if one.place else ""
    more = f' <a href="#{card}">card</a>' if card is not None else ""
    macs = "" if one.macs is None else f"{one.macs:,}"
    return f'<span id="{row_id(number)}" tabindex="-1">{label}{place}</span>', text(one.text) + more, macs
