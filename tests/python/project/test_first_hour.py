"""Everything that README asks a newcomer to type, in a fresh shell in this folder: block by block, line by line."""

import os
import shlex
import subprocess

import pytest

from conftest import REPOSITORY
from tools.snippets import blocks

# Commands that take minutes or need a network are only inspected.
SUBSTITUTES = """
pip() { command pip --version >/dev/null && case "$*" in "install .") ;; "install .[completion]") ;; *) false;; esac; }
make() {
  if [ "$*" != test ] && command make -q .venv/installed; then command make "$@"; else command make -n "$@"; fi
}
"""


def script() -> str:
    lines = [SUBSTITUTES]
    for block in blocks(REPOSITORY / "README.md"):
        if block.language == "sh":
            for line, code in block.lines():
                failed = f"echo {shlex.quote(f'README.md: {line}')}: exit code $code >&2; exit 1;"
                lines += [line, f"code=$?; test $code -eq {code} || {{ {failed} }}"]
    return "\n".join(lines)


@pytest.mark.skipif(not (REPOSITORY / ".venv/installed").exists(), reason="there is no .venv of make")
def test_readme_in_a_fresh_shell() -> None:
    for path in (REPOSITORY / "build").glob("*.*"):
        if path.suffix in {".onnx", ".html", ".npz"}:
            path.unlink()
    # No PYTHONPATH: a package built with sanitizers does not load in a plain interpreter.
    environment = {"HOME": os.environ.get("HOME", "/"), "PATH": "/usr/local/bin:/usr/bin:/bin"}
    run = subprocess.run(["bash", "-c", script()], cwd=REPOSITORY, env=environment, capture_output=True, text=True)
    assert run.returncode == 0, run.stderr
    assert "wrote quantized.onnx" in run.stdout
    assert "build/demo" in run.stdout
