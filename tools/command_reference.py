"""Writes docs/reference/command-line.md: every command with its arguments, from the parser itself.

    python -m tools.command_reference [--check]

The page does not use argparse's own layout, which differs between versions of Python.
"""

from __future__ import annotations

import argparse
import sys
from collections.abc import Iterator, Sequence
from pathlib import Path

from onnxgraft.cli.parser import make_parser
from tools import reference_page

PAGE = Path(__file__).resolve().parents[1] / "docs/reference/command-line.md"
INTRODUCTION = """# Command line

Every command of `onnxgraft` with its arguments. `make docs` generates this page from the parser, so it lists what
`onnxgraft COMMAND --help` lists. `python -m onnxgraft` is the same program.

- Files: an output appears whole or not at all. An existing file is overwritten only with `--force`.
- Models are prepared first by `apply`, `find` and `explain` ([Preparation](../use/preparation.md)); `--no-prepare`
  leaves that out.
- What a command ends with: [Exit codes](exit-codes.md). What `--json` prints: [JSON output](json.md).
- Tab completion: `pip install "onnx-graft[completion]"`, then put `eval "$(register-python-argcomplete onnxgraft)"`
  into `~/.bashrc` or `~/.zshrc`.
"""
# Arguments of every command; shown once.
_COMMON = ("help", "verbose", "quiet")

_Group = tuple[str | None, str | None, list[argparse.Action]]


def page() -> str:
    """The whole page."""
    parser = make_parser()
    (commands,) = (action for action in parser._actions if isinstance(action, argparse._SubParsersAction))
    summaries = {choice.dest: choice.help or "" for choice in commands._choices_actions}
    parts = [INTRODUCTION, "| Command | Does |", "|---|---|"]
    parts += [f"| [`{name}`](#{name}) | {_cell(summary)} |" for name, summary in summaries.items()]
    common = [action for action in next(iter(commands.choices.values()))._actions if action.dest in _COMMON]
    version = [action for action in parser._actions if action.dest == "version"]
    parts += ["", "## Every command takes", "", *_table(common)]
    parts += ["", "Without a command:", "", *_table(version)]
    for name in summaries:
        parts += _command(name, commands.choices[name])
    return "\n".join(parts) + "\n"


def _command(name: str, parser: argparse.ArgumentParser) -> Iterator[str]:
    actions = [action for action in parser._actions if action.dest not in _COMMON]
    required = [group._group_actions for group in parser._mutually_exclusive_groups if group.required]
    needed = [action for action in actions if any(action in group for group in required)]
    optional = [one for one in actions if one.option_strings and not one.required and one not in needed]
    usage = [
        f"onnxgraft {name}",
        *(_shown(action) for action in actions if not action.option_strings),
        *(_shown(action) for action in actions if action.required and action.option_strings),
        f"({' | '.join(map(_shown, needed))})" if needed else "",
        "[options]" if optional else "",
    ]
    yield from ("", f"## {name}", "", f"{_prose(parser.description)}", "")
    yield from ("```text", " ".join(filter(None, usage)), "```", "")
    plain = [action for action in actions if action in _plain_actions(parser)]
    yield from _table(sorted(plain, key=lambda action: bool(action.option_strings)))
    for title, about, members in _titled(parser):
        yield from ("", f"**{title}**: {_prose(about)}" if about else f"**{title}**", "", *_table(members))
    exclusive = [group for group in parser._mutually_exclusive_groups if len(group._group_actions) > 1]
    if exclusive:
        yield ""
    for group in exclusive:
        names = ", ".join(f"`{_name(action)}`" for action in actions if action in group._group_actions)
        yield f"- {'One' if group.required else 'Only one'} of {names}{' is required' if group.required else ''}."
    if parser.epilog:
        yield from ("", _prose(parser.epilog))


def _plain_actions(parser: argparse.ArgumentParser) -> list[argparse.Action]:
    return [action for group in parser._action_groups[:2] for action in group._group_actions]


def _titled(parser: argparse.ArgumentParser) -> Iterator[_Group]:
    for group in parser._action_groups[2:]:
        if group._group_actions:
            yield group.title, group.description, group._group_actions


def _table(actions: Sequence[argparse.Action]) -> Iterator[str]:
    if actions:
        yield from ("| Argument | Meaning |", "|---|---|")
    for action in actions:
        names = ", ".join(f"`{_escaped(_shown(action, name))}`" for name in action.option_strings or [_name(action)])
        yield f"| {names} | {_cell(action.help or '')} |"


def _name(action: argparse.Action) -> str:
    if action.option_strings:
        return action.option_strings[-1]
    return str(action.metavar or action.dest)


def _shown(action: argparse.Action, name: str | None = None) -> str:
    """The action as one types it: `--seed N`."""
    if not action.option_strings:
        return f"[{_name(action)}]" if action.nargs in ("?", "*") else _name(action)
    shown = name or action.option_strings[0]
    if action.nargs == 0:
        return shown
    values = "|".join(map(str, action.choices or ()))
    return f"{shown} {action.metavar or values or action.dest.upper()}{' ...' if action.nargs in ('+', '*') else ''}"


def _escaped(text: str) -> str:
    return text.replace("|", "\\|")


def _cell(text: str) -> str:
    text = text.replace("%%", "%")
    return _escaped(text[:1].upper() + text[1:] + ("" if text.endswith(".") else "."))


def _prose(text: str | None) -> str:
    text = (text or "").replace("%%", "%")
    return text[:1].upper() + text[1:] + ("" if text.endswith(".") else ".")


if __name__ == "__main__":
    sys.exit(reference_page.run("command_reference", PAGE, page))
