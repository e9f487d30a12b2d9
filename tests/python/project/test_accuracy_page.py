"""The tables of docs/use/accuracy.md report what was measured."""

from typing import Any

from bench.accuracy import page


def line(left: int, top: int, text: str) -> list[Any]:
    return [[[left, top], [left + 100, top], [left + 100, top + 20], [left, top + 20]], text]


def test_readings_are_compared_place_by_place() -> None:
    floats = {"found": [[line(0, 0, "one two"), line(0, 50, "three")]], "drawn": [["one two", "there"]], "seconds": 1.0}
    # The first line slightly displaced, with another text; the second one not found; a third one too many.
    ours = {**floats, "found": [[line(4, 2, "one tvo"), line(0, 200, "four")]]}
    rows = page._readings({"float": floats, "recipe": ours})
    assert rows[1][1:] == ["2 of 2", "2 of 2", "2 of 2", "100.0 %", "1 of 2", "1"]
    assert rows[2][1:] == ["1 of 2", "0 of 2", "0 of 2", "50.0 %", "0 of 2", "1"]


def test_the_best_of_the_other_tool_counts_and_failures_are_told() -> None:
    found = {
        "plain": {"decibels": 20.04, "left": ["Conv 'a'"]},
        "recipe": {"failed": "out of memory"},
        "ort_all": {"decibels": 11.0},
        "ort_same": {"decibels": 12.0},
        "forward": {"busy": 2.0},
        "calibrate": {"busy": 3.0, "megabytes": 470.2},
    }
    results = {"det": found}
    assert page._decibels(results, "decibels")[1][1:] == ["20.0", "-", "12.0"]
    assert page._times(results)[1][1:5] == ["2.0", "3.0", "1.5", "470"]
    assert len(list(page._failures(results))) == 2
