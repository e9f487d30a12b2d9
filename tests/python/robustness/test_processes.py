"""The same bytes in every process: hash seeds, threads, forks, the other protobuf implementation; sub-interpreters."""

import hashlib
import multiprocessing
import os
import subprocess
import sys
import time
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path

import numpy as np
import pytest
from google.protobuf.internal import api_implementation
from onnx import GraphProto

from helpers.classes import CLASSES, apply, class_graph
from helpers.small_graphs import conv_relus
from onnxgraft import abstract_transformation
from onnxgraft.engine import rewrite


def digest(name: str, draws: bool = False) -> str:
    """A digest of a class's results on three graphs, without random contents, since threads share the generator."""
    result = hashlib.sha256()
    for seed in range(3):
        graph = class_graph(name, seed)
        outcome = apply(name, graph)
        for tensor in [] if draws else graph.initializer:
            del tensor.uint64_data[:]
            tensor.raw_data = b""
        shown = type(outcome) if isinstance(outcome, Exception) else outcome
        result.update(repr(shown).encode() + graph.SerializeToString(deterministic=True))
    return result.hexdigest()


def digests() -> str:
    return " ".join(digest(name, draws=True) for name in sorted(CLASSES))


@pytest.mark.parametrize(
    ("implementation", "seed"),
    [*((api_implementation.Type(), seed) for seed in ("0", "1", "4294967295")), ("python", "0")],
)
def test_hash_seeds_and_the_protobuf_implementation_in_python(implementation: str, seed: str) -> None:
    settings = {"PYTHONHASHSEED": seed, "PROTOCOL_BUFFERS_PYTHON_IMPLEMENTATION": implementation}
    code = "import test_processes as t; print(t.api_implementation.Type(), t.digests())"
    environment = {**os.environ, **settings, "PYTHONWARNINGS": "ignore", "PYTHONPATH": os.pathsep.join(sys.path)}
    command = [sys.executable, "-c", code]
    run = subprocess.run(command, cwd=Path(__file__).parent, env=environment, capture_output=True, text=True)
    assert run.stdout.strip() == f"{implementation} {digests()}", run.stderr


def test_fast_paths_are_on() -> None:
    """They recognise protobuf's containers by their type names, and another name would silently disable them."""
    is_fast, graph = vars(abstract_transformation)["_is_fast"], GraphProto()
    expected = api_implementation.Type() != "python"
    assert [is_fast(field) for field in (graph.node, graph.initializer, graph.value_info)] == [expected] * 3
    assert not is_fast([])
    assert not is_fast(graph.node.add().input)


def test_threads_with_a_graph_each() -> None:
    expected = {name: digest(name) for name in CLASSES}
    interval = sys.getswitchinterval()
    sys.setswitchinterval(1e-5)
    try:
        with ThreadPoolExecutor(2) as pool:
            for name, found in zip([*CLASSES] * 2, pool.map(digest, [*CLASSES] * 2), strict=True):
                assert found == expected[name], name
    finally:
        sys.setswitchinterval(interval)


def test_seeded_runs_in_threads_give_what_they_give_alone() -> None:
    def run(seed: int) -> bytes:
        graph = conv_relus(20)
        rewrite(graph, ["quant_conv"], seed=seed, progress=lambda _: time.sleep(0.002))
        return graph.SerializeToString(deterministic=True)

    expected, state = [run(seed) for seed in range(8)], np.random.get_state(legacy=False)
    with ThreadPoolExecutor(4) as pool:
        assert list(pool.map(run, range(8))) == expected
    np.testing.assert_equal(np.random.get_state(legacy=False), state)


@pytest.mark.filterwarnings("ignore:.*fork.*:DeprecationWarning")
def test_forked_workers() -> None:
    expected = [digest(name) for name in CLASSES]
    with multiprocessing.get_context("fork").Pool(2) as pool:
        assert pool.map(digest, CLASSES) == expected


SUB_INTERPRETERS = """
import sys
try:
    import _interpreters as interpreters
except ImportError:
    import _xxsubinterpreters as interpreters
code = '''
try:
    import onnxgraft.{0}
except Exception as error:
    assert isinstance(error, (ImportError, RuntimeError)), error
else:
    raise SystemError("imported")
'''
names = "abstract_transformation", "transform_utilities", "quant"
old = sys.version_info < (3, 13)
for _ in range(2):
    for kind in ("legacy", "isolated"):
        made = interpreters.create(isolated=kind == "isolated") if old else interpreters.create(kind)
        for name in names:
            error = interpreters.run_string(made, code.format(name))
            assert error is None, error
        interpreters.destroy(made)
    from onnx import GraphProto
    from onnxgraft import quant  # before the second time round, and after the first
    assert quant.QuantConvTransformation().apply(GraphProto()) == 0
print("fine")
"""


def test_sub_interpreters_are_refused() -> None:
    run = subprocess.run([sys.executable, "-W", "ignore", "-c", SUB_INTERPRETERS], capture_output=True, text=True)
    assert (run.returncode, run.stdout) == (0, "fine\n"), run.stderr
