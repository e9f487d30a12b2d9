"""Builds a wheel or source distribution for every Python that is found, and tries it in a fresh environment.

    python -m tools.packages wheel|sdist

Interpreters are looked for on PATH (python3.10 and newer) and among pyenv's, one for each version. ONNXGRAFT_PYTHONS, a
list like PATH, names others instead. Results are in build/dist/.
"""

from __future__ import annotations

import argparse
import os
import shutil
import subprocess
import sys
import tempfile
from collections.abc import Iterator, Sequence
from pathlib import Path

from tools.snippets import blocks

ROOT = Path(__file__).resolve().parents[1]
DIST = ROOT / "build/dist"
OLDEST, NEWEST = 10, 15
# The tools that a build from source needs: a compiler with its parts, make and CMake, but not ninja.
COMPILER = ("c++", "g++", "cc", "gcc", "as", "ld", "ar", "ranlib", "nm", "strip", "make", "cmake", "sh", "uname")
PIP = ("-m", "pip", "--disable-pip-version-check", "--no-input", "--quiet")
_ABOUT = "import sys, sysconfig, os, ensurepip; print(sys.version_info[1], sys.implementation.name, \
os.path.exists(os.path.join(sysconfig.get_path('include'), 'Python.h')))"

_VERSIONS = "from importlib.metadata import version as v; \
print(', '.join(f'{name} {v(name)}' for name in ('numpy', 'onnx', 'protobuf', 'rich')), end='')"


def run(*command: str | Path, environment: dict[str, str] | None = None, folder: Path = ROOT) -> str:
    """Runs a command and returns its output; a failing one ends the process with its output."""
    done = subprocess.run(
        [str(word) for word in command],
        cwd=folder,
        env={**os.environ, **(environment or {})},
        stdout=subprocess.PIPE,
        stderr=subprocess.STDOUT,
        text=True,
    )
    if done.returncode:
        sys.exit(f"{done.stdout}\n{' '.join(map(str, command))}: exit code {done.returncode}")
    return done.stdout


def candidates() -> Iterator[str]:
    """Yields paths of programs that may be an interpreter."""
    if listed := os.environ.get("ONNXGRAFT_PYTHONS"):
        yield from listed.split(os.pathsep)
        return
    for minor in range(OLDEST, NEWEST + 1):
        if path := shutil.which(f"python3.{minor}"):
            yield path
    if shutil.which("pyenv"):
        versions = Path(run("pyenv", "root").strip()) / "versions"
        yield from map(str, sorted(versions.glob("3.*/bin/python3")))


def interpreters() -> dict[str, str]:
    """Working interpreters with headers and ensurepip, by version."""
    found: dict[int, str] = {}
    for path in candidates():
        about = subprocess.run([path, "-c", _ABOUT], capture_output=True, text=True)
        if about.returncode:
            continue
        minor, name, has_headers = about.stdout.split()
        if name == "cpython" and has_headers == "True" and int(minor) >= OLDEST:
            found.setdefault(int(minor), path)
    return {f"3.{minor}": found[minor] for minor in sorted(found)}


def environment_in(folder: Path, interpreter: str, *requirements: str | Path) -> Path:
    """Makes an environment and returns its interpreter."""
    run(interpreter, "-m", "venv", folder)
    python = folder / "bin/python"
    if requirements:
        run(python, *PIP, "install", *requirements)
    return python


def build_wheel(interpreter: str, folder: Path) -> Path:
    """Builds and repairs a wheel; the audit tags it with the oldest systems that it runs on."""
    lists = [word for name in ("build", "package") for word in ("-r", ROOT / f"requirements/{name}.txt")]
    python = environment_in(folder / "tools", interpreter, *lists)
    path = {"PATH": f"{python.parent}{os.pathsep}{os.environ['PATH']}"}
    run(python, *PIP, "wheel", "--no-deps", "--no-build-isolation", "-w", folder / "raw", ROOT, environment=path)
    (raw,) = (folder / "raw").glob("*.whl")
    audited = folder / "audited"
    run(python, "-m", "auditwheel", "repair", "--strip", "-w", audited, raw, environment=path)
    (wheel,) = audited.glob("*.whl")
    DIST.mkdir(parents=True, exist_ok=True)
    return Path(shutil.copy(wheel, DIST))


def build_sdist(folder: Path) -> Path:
    """Makes the source distribution."""
    python = environment_in(folder / "tools", sys.executable, "-r", ROOT / "requirements/build.txt")
    program = "import sys; from scikit_build_core.build import build_sdist; build_sdist(sys.argv[1])"
    run(python, "-c", program, folder / "raw")
    (archive,) = (folder / "raw").glob("*.tar.gz")
    DIST.mkdir(parents=True, exist_ok=True)
    return Path(shutil.copy(archive, DIST))


def compiler_only(folder: Path) -> dict[str, str]:
    """A PATH with only a compiler, make and CMake."""
    folder.mkdir()
    for name in COMPILER:
        # Not pyenv's scripts: they need more than this.
        places = [place for place in os.environ["PATH"].split(os.pathsep) if Path(place).name != "shims"]
        if found := shutil.which(name, path=os.pathsep.join(places)):
            (folder / name).symlink_to(found)
    return {"PATH": str(folder)}


def try_out(python: Path, folder: Path) -> None:
    """Uses an installed package as the README describes: commands and snippets, outside of the source tree."""
    place = folder / "place"
    (place / "build").mkdir(parents=True)
    (place / "examples").symlink_to(ROOT / "examples")
    run(python, "-c", "import onnxgraft.quant, onnxgraft.transform_utilities", folder=place)
    if "quant_conv" not in run(python.parent / "onnxgraft", "list", folder=place):
        sys.exit("onnxgraft list: quant_conv is missing")
    for number, block in enumerate(blocks(ROOT / "README.md")):
        if block.language == "python":
            snippet = place / f"snippet_{number}.py"
            snippet.write_text(block.text)
            run(python, snippet, folder=place)


def main(arguments: Sequence[str] | None = None) -> None:
    """Runs the command line."""
    parser = argparse.ArgumentParser(prog="python -m tools.packages")
    parser.add_argument("kind", choices=("wheel", "sdist"))
    kind = parser.parse_args(arguments).kind
    found = interpreters()
    if not found:
        sys.exit("no Python 3.10 or newer with headers and ensurepip was found")
    with tempfile.TemporaryDirectory(prefix="onnxgraft-") as name:
        work = Path(name)
        archive = build_sdist(work) if kind == "sdist" else None
        for version, interpreter in found.items():
            folder = work / version
            folder.mkdir()
            package = archive or build_wheel(interpreter, folder)
            python = environment_in(folder / "fresh", interpreter)
            environment = compiler_only(folder / "path") if archive else None
            run(python, *PIP, "install", package, environment=environment)
            try_out(python, folder)
            beside = run(python, "-c", _VERSIONS)
            print(f"Python {version}: {package.name} installed and tried with {beside}", flush=True)


if __name__ == "__main__":
    main()
