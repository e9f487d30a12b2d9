"""The common parts of all pages: the frame with style, script and search field, texts and tables."""

from __future__ import annotations

import base64
import functools
import hashlib
from collections.abc import Iterable, Sequence
from importlib import resources
from string import Template

from onnxgraft.drawing.geometry import markup

_PAGE = Template("""<!DOCTYPE html>
<html lang="en">
<head>
<meta charset="utf-8">
<meta name="viewport" content="width=device-width, initial-scale=1">
<meta http-equiv="Content-Security-Policy"
  content="default-src 'none'; style-src 'unsafe-inline'; script-src 'sha256-$digest'; img-src data:">
<meta name="generator" content="onnx-graft">
<title>$title</title>
<link rel="icon" href="data:,">
<style>$style</style>
</head>
<body>
<header><h1>$title</h1><p class="facts">$facts</p></header>
<main>
$picture
$summary
<section class="cards" aria-label="$kind">
<div class="tools" role="search">
<label for="search">Find</label>
<input id="search" type="search" placeholder="name, operator, shape, reason" autocomplete="off" spellcheck="false">
$filters
<output id="count" for="search" aria-live="polite"></output>
<span class="keys" aria-hidden="true"><kbd>/</kbd> find <kbd>j</kbd> <kbd>k</kbd> next, previous</span>
</div>
$cards
</section>
</main>
<script>$script</script>
</body>
</html>
""")


@functools.cache
def _file(name: str) -> str:
    return resources.files(__package__).joinpath(name).read_text(encoding="utf-8")


def page(
    title: str,
    facts: Iterable[str],
    summary: str,
    kind: str,
    filters: Sequence[str],
    cards: Sequence[str],
    *,
    picture: str = "",
) -> str:
    """The page.

    Args:
        title: Plain text.
        facts: Short plain texts below the title.
        summary: HTML above the cards.
        kind: What the cards are, in the plural.
        filters: Kinds of cards, as in their `data-kind`, to choose from.
        cards: HTML, one `<article>` each.
        picture: HTML of a map of the network, which opens the page.
    """
    script = _file("page.js") + (_file("map.js") if picture else "")
    boxes = "".join(
        f'<label class="filter"><input type="checkbox" value="{text(name)}" checked> {text(name)}</label>'
        for name in (filters if len(filters) > 1 else ())
    )
    return _PAGE.substitute(
        digest=base64.b64encode(hashlib.sha256(script.encode()).digest()).decode(),
        title=text(title),
        facts=" · ".join(f"<span>{text(fact)}</span>" for fact in facts),
        picture=picture,
        summary=summary,
        kind=text(kind),
        filters=boxes,
        cards="\n".join(cards) or '<p class="empty">Nothing to show.</p>',
        style=_file("page.css") + (_file("map.css") if picture else ""),
        script=script,
    )


def text(value: object) -> str:
    """The value as HTML text, also safe in double-quoted attributes."""
    return markup(str(value))


def table(headings: Sequence[str], rows: Iterable[Sequence[str]], numbers: Iterable[int] = ()) -> str:
    """A table of cells that are HTML; `numbers` are the columns that are aligned to the right."""
    right = set(numbers)

    def cells(tag: str, row: Sequence[str]) -> str:
        sides = (' class="number"' if k in right else "" for k in range(len(row)))
        return "".join(f"<{tag}{side}>{cell}</{tag}>" for side, cell in zip(sides, row, strict=True))

    body = "\n".join(f"<tr>{cells('td', row)}</tr>" for row in rows)
    head = "".join(cells("th", headings)).replace("<th", '<th scope="col"')
    return f'<div class="wide"><table><thead><tr>{head}</tr></thead>\n<tbody>{body}</tbody></table></div>'
