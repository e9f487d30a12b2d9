"""Every allocation of the interpreter fails once: MemoryError comes out, nothing is lost, the graph is sound."""

import json
import os
import subprocess
import sys
from pathlib import Path

import pytest


# Python 3.10 and 3.13 themselves return without an exception, or lose a list.
@pytest.mark.skipif(sys.version_info[:2] != (3, 11), reason="other versions of Python do not survive it everywhere")
def test_every_allocation_fails_once() -> None:
    pytest.importorskip("_testcapi", reason="this Python comes without its own test modules")
    if os.environ.get("PYTHONMALLOC") == "malloc":
        pytest.skip("blocks cannot be counted with the system's allocator")
    script = Path(__file__).with_name("memory_faults.py")
    environment = {**os.environ, "PYTHONPATH": os.pathsep.join(sys.path)}  # the helpers of the tests
    run = subprocess.run(
        [sys.executable, str(script)], env=environment, capture_output=True, text=True, check=False, timeout=120
    )
    assert run.returncode == 0, run.stdout + run.stderr
    lines = [json.loads(line) for line in run.stdout.splitlines()]
    assert [line for line in lines if line["wrong"] or line["lost"] > line["faults"] / 4 + 4] == []
    assert sum(line["faults"] for line in lines) > 250
