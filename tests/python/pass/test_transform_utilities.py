"""`get_init` compared with a plain walk over the list; external data, and its folder."""

import contextlib
import contextvars
import gc
import random
import shutil
import sys
import threading
from collections.abc import Callable, Iterator
from itertools import count
from pathlib import Path
from typing import Any

import numpy as np
import pytest
from onnx import GraphProto, TensorProto, helper, numpy_helper

from onnxgraft.transform_utilities import external_data_folder, get_init


def tensor(name: str, value: float = 0.0) -> TensorProto:
    return numpy_helper.from_array(np.array([value], np.float32), name)


def graph_of(size: int) -> GraphProto:
    return GraphProto(name="g", initializer=[tensor(f"w{k}", k) for k in range(size)])


def test_results_are_in_the_order_of_the_names() -> None:
    graph = graph_of(40)
    for names in (("w3", "w1", "w3"), ["w3", "w1", "w3"], iter(("w3", "w1", "w3"))):
        arrays, records = get_init(graph, names)
        assert [a.item() for a in arrays] == [3, 1, 3]
        assert all(r is graph.initializer[k] for r, k in zip(records, (3, 1, 3), strict=True))
    assert get_init(graph=graph, names=()) == ([], [])


@pytest.mark.parametrize(
    ("names", "error", "message"),
    [
        (("w1", "lost"), ValueError, r"'lost' is not an initializer of graph 'g' \(\d+ initializers\)"),
        ((None,), ValueError, "None is not an initializer"),
        ("w1", TypeError, r"pass \('w1',\)"),
        (b"w1", TypeError, "one bytes"),
        (3, TypeError, "iterable"),
    ],
)
@pytest.mark.parametrize("size", [5, 50])
def test_names_that_cannot_be_looked_up(names: Any, error: type[Exception], message: str, size: int) -> None:
    with pytest.raises(error, match=message):
        get_init(graph_of(size), names)


def edit(graph: GraphProto, rng: random.Random, fresh: Iterator[int]) -> None:
    """One edit of the kind that hosts and transformations make."""
    tensors = graph.initializer
    place = rng.randrange(len(tensors))
    match rng.randrange(9):
        case 0 | 1:
            del tensors[place]
        case 2 | 3:  # a new one under the old name, at the end
            name = tensors[place].name
            del tensors[place]
            tensors.append(tensor(name))
        case 4 | 5:
            tensors.extend(tensor(f"n{next(fresh)}") for _ in range(rng.randrange(4)))
        case 6:
            tensors.insert(place, tensor(f"n{next(fresh)}"))
        case 7:
            tensors[place].name = f"n{next(fresh)}"
        case _:
            tensors.sort(key=lambda t: hash((t.name, place)))


@pytest.mark.parametrize("seed", range(25))
def test_a_look_up_agrees_with_a_walk_after_any_edits(seed: int) -> None:
    rng = random.Random(seed)
    graph, fresh = graph_of(rng.choice((30, 80, 300))), count()
    for step in range(150):
        for _ in range(rng.choice((1, 1, 5))):
            edit(graph, rng, fresh)
        wanted = [t.name for t in rng.sample(list(graph.initializer), 3)] + ["lost"] * (step % 7 == 0)
        for name in wanted:
            first = next((t for t in graph.initializer if t.name == name), None)
            if first is None:
                with pytest.raises(ValueError, match="lost"):
                    get_init(graph, (name,))
            else:
                assert get_init(graph, (name,))[1][0] is first


def test_the_first_of_equal_names_counts() -> None:
    graph = graph_of(60)
    get_init(graph, ("w50",))
    graph.initializer.insert(0, tensor("w50", -1))
    graph.initializer.append(tensor("w51", -1))
    assert [a.item() for a in get_init(graph, ("w50", "w51"))[0]] == [-1, 51]
    del graph.initializer[52]
    assert get_init(graph, ("w51",))[0][0] == -1


@pytest.mark.parametrize("seed", range(10))
def test_the_first_of_equal_names_counts_after_any_renaming(seed: int) -> None:
    """While some name is there twice."""
    rng = random.Random(seed)
    graph = graph_of(60)
    tensors = graph.initializer
    for step in range(60):
        place, other = rng.randrange(60), rng.randrange(60)
        match rng.randrange(4):
            case 0:
                tensors[place].name = tensors[other].name
            case 1:
                tensors[place].name, tensors[other].name = tensors[other].name, tensors[place].name
            case 2:
                tensors[place].name = f"n{step}"
            case _:
                tensors.sort(key=lambda t: hash((t.name, place)))
        tensors[0].name = tensors[-1].name
        for name in {tensors[rng.randrange(60)].name for _ in range(3)}:
            assert get_init(graph, (name,))[1][0] is next(t for t in tensors if t.name == name)


class FakeGraph:
    """A graph whose initializer list counts how often an element is read."""

    name = "fake"

    class Counting(list[Any]):
        reads = 0

        def __getitem__(self, index: Any) -> Any:
            self.reads += 1
            return super().__getitem__(index)

    def __init__(self, count: int) -> None:
        self.initializer = self.Counting(tensor(f"w{k}", k) for k in range(count))

    def replace(self, place: int, name: str = "") -> str:
        old = str(self.initializer.pop(place).name)
        return self.append(name or old)

    def append(self, name: str) -> str:
        self.initializer.append(tensor(name))
        return name

    def name_at(self, place: int) -> str:
        return str(list.__getitem__(self.initializer, place).name)


ACCESSES: dict[str, Callable[[FakeGraph, int], str]] = {
    "steady": lambda graph, step: f"w{step * 37 % 5000}",
    "replacing in order": lambda graph, step: graph.replace(0) and graph.name_at(1),
    "replacing anywhere": lambda graph, step: (
        graph.replace(step * 7919 % 4000, f"n{step}") and graph.name_at(step * 104729 % 4900)
    ),
    "replacing near the end": lambda graph, step: graph.replace(-3),
    "appending": lambda graph, step: graph.append(f"n{step}"),
}


@pytest.mark.parametrize("access", ACCESSES.values(), ids=ACCESSES)
def test_a_look_up_reads_few_elements(access: Callable[[FakeGraph, int], str]) -> None:
    graph = FakeGraph(5000)
    get_init(graph, ("w7",))  # type: ignore[arg-type]
    graph.initializer.reads = 0
    for step in range(500):
        get_init(graph, (access(graph, step),))  # type: ignore[arg-type]
    assert graph.initializer.reads < 500 * 30


def test_nothing_is_kept_alive() -> None:
    graph = graph_of(100)
    record = graph.initializer[70]
    before = (sys.getrefcount(graph), sys.getrefcount(record))
    result = get_init(graph, ("w70",))
    assert result[1][0] is record
    del result
    gc.collect()
    assert (sys.getrefcount(graph), sys.getrefcount(record)) == before


def test_code_that_runs_in_between_may_change_everything() -> None:
    graph = FakeGraph(200)

    class Meddler:
        data_location = 0

        @property
        def name(self) -> str:
            if len(graph.initializer) > 150:
                del graph.initializer[5]
                get_init(graph, ("w199",))  # type: ignore[arg-type]
            return "meddler"

    graph.initializer[0] = Meddler()
    for name in ("w150", "w3", "w199", "w150"):
        assert get_init(graph, (name,))[1][0].name == name  # type: ignore[arg-type]


@pytest.fixture
def stored(tmp_path: Path, monkeypatch: pytest.MonkeyPatch) -> Path:
    """The current folder, with 3 x 2 floats in data.bin, 8 bytes from the start."""
    (tmp_path / "data.bin").write_bytes(bytes(8) + np.arange(6, dtype=np.float32).tobytes() + bytes(4))
    monkeypatch.chdir(tmp_path)
    return tmp_path


def external(location: str | None, dims: tuple[int, ...] = (3, 2), kind: int = 1, **entries: Any) -> TensorProto:
    made = TensorProto(name="w", data_type=kind, dims=dims, data_location=TensorProto.EXTERNAL)
    for key, value in {"location": location, **entries}.items():
        if value is not None:
            made.external_data.add(key=key, value=str(value))
    return made


def read(made: TensorProto, folder: Path | str = "") -> Any:
    with external_data_folder(folder) if folder else contextlib.nullcontext():
        return get_init(GraphProto(name="g", initializer=[made]), ("w",))[0][0]


def test_external_data_is_mapped_read_only(stored: Path) -> None:
    for folder in (stored, ""):
        for location in ("data.bin", "./sub/../data.bin"):
            array = read(external(location, offset=8, length=24), folder)
            assert isinstance(array, np.memmap)
            assert (array.dtype, array.tolist(), array.flags.writeable) == (np.float32, [[0, 1], [2, 3], [4, 5]], False)
    empty = read(external("data.bin", dims=(0, 4)))
    assert (type(empty), empty.shape, empty.dtype) == (np.ndarray, (0, 4), np.float32)


WHOLE_BYTES = ["bool", "int8", "int16", "int32", "int64", "uint8", "uint16", "uint32", "uint64", "float16", "float32",
               "float64", "complex64", "complex128"]  # fmt: skip


@pytest.mark.parametrize("dtype", WHOLE_BYTES)
def test_element_types_that_are_mapped(dtype: str, tmp_path: Path) -> None:
    values = np.array([[0, 1, 1], [1, 0, 1]]).astype(dtype)
    (tmp_path / "d").write_bytes(values.tobytes())
    array = read(external("d", (2, 3), helper.np_dtype_to_tensor_dtype(values.dtype), length=values.nbytes), tmp_path)
    assert isinstance(array, np.memmap)
    assert (array.dtype, array.tolist()) == (values.dtype, values.tolist())


def test_other_element_types_are_read_by_onnx_and_the_record_stays(tmp_path: Path) -> None:
    (tmp_path / "d").write_bytes(b"\x21\x03")
    made = external("d", (3,), TensorProto.UINT4)
    graph = GraphProto(name="g", initializer=[made])
    with external_data_folder(tmp_path):
        assert get_init(graph, ("w",))[0][0].astype(int).tolist() == [1, 2, 3]
    assert graph.initializer[0] == made


REFUSALS: list[tuple[dict[str, Any], str]] = [
    ({"location": None}, "no location"),
    ({"location": "/etc/passwd"}, "must be relative"),
    ({"location": "../data.bin"}, "must stay inside"),
    ({"location": "sub/../../data.bin"}, "must stay inside"),
    ({"location": "."}, "must stay inside"),
    ({"location": "data.bin\0x"}, "NUL"),
    ({"location": "sub"}, "must be a regular file"),
    ({"location": "link"}, "not a symbolic link"),
    ({"location": "out/outside"}, "out of the folder"),
    ({"location": "twice"}, "has 2 hard links"),
    ({"location": "x" * 5000}, "File name too long"),
    ({"location": "round/data.bin"}, "Too many levels of symbolic links"),
    ({"location": "data.bin", "offset": -8}, "offset '-8' must be a whole number"),
    ({"location": "data.bin", "offset": 37}, "offset 37 is beyond the end of the file, which has 36 bytes"),
    ({"location": "data.bin", "length": "many"}, "length 'many' must be a whole number"),
    ({"location": "data.bin", "length": ""}, "length '' must be a whole number"),
    ({"location": "data.bin", "offset": 16, "length": 24}, "length 24 from offset 16 must fit"),
    ({"location": "data.bin", "offset": 8, "length": 20}, "a length of 20 bytes, but dims .* take 24 bytes"),
    ({"location": "data.bin", "offset": 8, "length": 28}, "a length of 28 bytes, but dims .* take 24 bytes"),
    ({"location": "data.bin", "offset": 16}, "a rest of 20 bytes, but dims .* take 24 bytes"),
    ({"location": "data.bin", "dims": (2**40, 2**40)}, "too large"),
    ({"location": "data.bin", "dims": (-1, 2)}, "must not be negative"),
    ({"location": "lost.bin"}, r"external data '.*lost.bin' does not exist"),
]


@pytest.mark.parametrize(("entries", "message"), REFUSALS, ids=lambda value: str(value)[:40])
def test_external_data_that_is_refused(stored: Path, entries: dict[str, Any], message: str) -> None:
    (stored / "model" / "sub").mkdir(parents=True)
    shutil.move("data.bin", "model/data.bin")
    (stored / "model/link").symlink_to("data.bin")
    (stored / "outside").write_bytes(bytes(24))
    (stored / "model/out").symlink_to(stored)
    (stored / "model/round").symlink_to("round")
    (stored / "model/once").write_bytes(bytes(24))
    (stored / "model/twice").hardlink_to(stored / "model/once")
    with pytest.raises((ValueError, FileNotFoundError), match=message) as caught:
        read(external(**entries), "model")
    assert str(caught.value).startswith("tensor 'w'")


def test_folders_nest_and_belong_to_their_context(tmp_path: Path) -> None:
    for value in range(3):
        (tmp_path / str(value)).mkdir()
        (tmp_path / str(value) / "d").write_bytes(np.float32(value).tobytes())
    made = external("d", (1,))
    with external_data_folder(tmp_path / "1") as entered:
        assert entered == str(tmp_path / "1")
        assert read(made, str(tmp_path / "2")) == 2
        with pytest.raises(ZeroDivisionError), external_data_folder(tmp_path / "0"):
            raise ZeroDivisionError
        assert read(made) == 1
        seen: list[Any] = []

        def in_a_thread() -> None:
            with pytest.raises(FileNotFoundError):
                read(made)
            seen.append(read(made, tmp_path / "2"))

        thread = threading.Thread(target=contextvars.Context().run, args=(in_a_thread,))
        thread.start()
        thread.join()
        assert seen == [2]

    with pytest.raises(FileNotFoundError):
        read(made)


def test_misuse_of_the_folder() -> None:
    with pytest.raises(TypeError):
        external_data_folder(3)  # type: ignore[arg-type]
    outer, inner = external_data_folder("a"), external_data_folder("b")
    assert repr(outer) == "external_data_folder('a')"
    with pytest.raises(RuntimeError, match="reverse order"):
        outer.__exit__(None, None, None)
    with outer, inner, outer:
        pass
