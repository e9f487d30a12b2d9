"""Measures the accuracy of quantized networks, and writes docs/use/accuracy.md.

python -m bench.accuracy [--only NETWORK ...]    keeps the results that are already in build/accuracy/results.json
"""

from __future__ import annotations

import argparse
import json
import subprocess
import sys
import time
from typing import Any

from bench.accuracy import feeding, page, pages
from bench.accuracy.networks import BY_NAME, FOLDER, NETWORKS, OCR

RESULTS = FOLDER / "results.json"
TASKS = (
    *("forward", "calibrate", "calibrate_mse", "random_apply", "extremes", "plain", "recipe", "ort_same"),
    *("corrected", "float2", "float5"),
    *("ort_tensor", "ort_percentile", "ort_entropy", "ort_all", "ort_symmetric"),
)
# The models that replace those of the OCR package; `ort` is the best of onnxruntime's.
PIPELINES = ("float", "corrected", "float2", "ort")


def main() -> int:
    """Measures and writes; a failed task is recorded as failed."""
    parser = argparse.ArgumentParser(prog="python -m bench.accuracy", description=__doc__)
    parser.add_argument("--only", nargs="*", choices=[*BY_NAME, "pipeline"], help="measure only these")
    options = parser.parse_args()
    results: dict[str, Any] = json.loads(RESULTS.read_text()) if RESULTS.exists() else {}
    wanted = options.only or [*BY_NAME, "pipeline"]
    print("the inputs of the models", flush=True)
    feeding.collect()
    for task in TASKS:
        for network in NETWORKS:
            if network.name in wanted and task not in results.setdefault(network.name, {}):
                results[network.name][task] = _work(task, network.name)
                _keep(results)
    for name in PIPELINES:
        if "pipeline" in wanted and name not in results.setdefault("pipeline", {}):
            print(f"pipeline {name}", flush=True)
            results["pipeline"][name] = _read_pages(name, results)
            _keep(results)
    page.write(results)
    return 0


def _keep(results: dict[str, Any]) -> None:
    RESULTS.write_text(json.dumps(results, indent=1))


def _work(task: str, network: str) -> dict[str, Any]:
    done = subprocess.run([sys.executable, "-m", "bench.accuracy.work", task, network], capture_output=True, text=True)
    lines = done.stdout.splitlines()
    found: dict[str, Any] = (
        json.loads(lines[-1]) if lines and not done.returncode else {"failed": done.stderr.strip()[-300:]}
    )
    print(network, task, {key: value for key, value in found.items() if key not in {"left", "replaced"}}, flush=True)
    return found


def _read_pages(name: str, results: dict[str, Any]) -> dict[str, Any]:
    """The texts of all test pages, with the models of one kind in the pipeline."""
    models = {network: BY_NAME[network].made(_variant(name, results[network])) for network in OCR}
    floats = {network: BY_NAME[network].path for network in OCR}
    engine = feeding.pipeline(floats if name == "float" else models, fuses=name != "ort")
    start, found, texts = time.perf_counter(), [], []
    for number in feeding.READ_PAGES:
        picture, lines = pages.page(number)
        result, _ = engine(picture)
        found.append([[box, text] for box, text, _ in sorted(result or [], key=lambda line: line[0][0][1])])
        texts.append(lines)
    return {"found": found, "drawn": texts, "seconds": time.perf_counter() - start}


def _variant(name: str, results: dict[str, Any]) -> str:
    if name != "ort":
        return name
    made = {
        task: found["decibels"] for task, found in results.items() if task.startswith("ort") and "decibels" in found
    }
    return max(made, key=lambda task: made[task])


if __name__ == "__main__":
    sys.exit(main())
