# SPDX-License-Identifier: Apache-2.0
"""The plot command writes an image of each kind of figure (its size, not its pixels)."""

import json
import struct
import subprocess
import sys

import numpy as np
import pytest

import kestrel_flicker as kf


# Two conditions, one seed each: a switch under the other mains, none under steady light.
MATRIX = {"cells": [
    {"name": "60 Hz light", "condition": "other mains", "mains": 60, "state": 50, "frames": 8,
     "seeds": [1]},
    {"name": "steady light", "condition": "steady", "mains": 0, "state": 50, "frames": 8,
     "seeds": [1]},
]}


def png_size(path):
    with open(path, "rb") as f:
        head = f.read(24)
    assert head[:8] == b"\x89PNG\r\n\x1a\n", "not a PNG"
    assert head[12:16] == b"IHDR"
    return struct.unpack(">II", head[16:24])


def plot(*args):
    return subprocess.run([sys.executable, "-m", "kestrel_flicker.plot", *args],
                          capture_output=True, text=True, timeout=120)


@pytest.fixture(scope="module")
def run():
    return kf.simulate(frames=6, record=True)


@pytest.fixture(scope="module")
def files(tmp_path_factory, run):
    d = tmp_path_factory.mktemp("plot")
    (d / "run.csv").write_text(run["csv"])
    (d / "run.json").write_text(run["json"])
    kf.write_recording(str(d / "scene.kfr"), run["recording"])
    evaluation = kf.evaluate(MATRIX)
    (d / "evaluation.json").write_text(evaluation["json"])
    return d


@pytest.mark.parametrize(
    "source,extra,size",
    [
        ("run.csv", [], (1000, 750)),
        ("run.json", ["--size", "8x5", "--dpi", "50"], (400, 250)),
        ("scene.kfr", ["--frame", "3"], (1000, 750)),
        ("evaluation.json", [], (1000, 750)),
    ],
    ids=["run-csv", "run-json", "frame", "evaluation"],
)
def test_plot_command_writes_a_png(files, source, extra, size):
    out = files / (source + ".png")
    done = plot(str(files / source), "-o", str(out), *extra)
    assert done.returncode == 0, done.stderr
    assert png_size(out) == size


@pytest.mark.parametrize("source", ["run.csv", "run.json"])
def test_runs_load_from_the_tools_files(files, run, source):
    from kestrel_flicker import plot as kplot

    loaded = kplot.load_run(str(files / source))
    assert loaded["frame"].tolist() == [1, 2, 3, 4, 5]
    for key in ("energies", "score", "seq", "switched"):
        np.testing.assert_array_equal(loaded[key], run[key], err_msg=key)


def test_evaluation_of_a_matrix():
    report = kf.evaluate(MATRIX)
    other, steady = report["conditions"]
    assert (other["name"], other["detection_rate"], other["runs"]) == ("standard: other mains", 1.0, 1)
    assert (steady["name"], steady["false_switches"], steady["runs"]) == ("standard: steady", 0, 1)
    assert report["total"]["runs"] == 2


def test_plot_command_rejects_what_is_no_run(files):
    bad = files / "bad.csv"
    bad.write_text("a,b\n1,2\n")
    done = plot(str(bad), "-o", str(files / "bad.png"))
    assert done.returncode == 1
    assert "not a kestrel-flicker CSV" in done.stderr
