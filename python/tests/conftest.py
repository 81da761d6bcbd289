"""Shared helpers of the Python tests: sample data, samplers of known elements, the CLI."""
import json
import os
import pathlib
import subprocess

import numpy as np
import pytest

DATA = pathlib.Path(os.environ.get("GFIT_DATA", pathlib.Path(__file__).resolve().parents[2] / "data"))
CLI = os.environ.get("GFIT_CLI")


def load(name):
    """A sample file of the repository's data/ folder as an array (comments skipped; values
    separated by spaces or commas, as the command-line program reads them)."""
    with open(DATA / name) as f:
        rows = [line.split("#")[0].replace(",", " ").split() for line in f]
    return np.array([[float(v) for v in r] for r in rows if r], dtype=float)


def run_cli(*args):
    """The gfit command-line program's JSON result (skips the test without the program)."""
    if not CLI:
        pytest.skip("the gfit command-line program was not built")
    out = subprocess.run([CLI, *map(str, args)], capture_output=True, text=True, check=False)
    assert out.returncode in (0, 1), out.stderr
    return json.loads(out.stdout)


def frame(axis):
    """Two unit vectors completing the unit `axis` to a right-handed frame."""
    axis = np.asarray(axis, float) / np.linalg.norm(axis)
    helper = np.array([1.0, 0, 0]) if abs(axis[0]) < 0.9 else np.array([0, 1.0, 0])
    e1 = np.cross(axis, helper)
    e1 /= np.linalg.norm(e1)
    return e1, np.cross(axis, e1)


def unit(v):
    v = np.asarray(v, float)
    return v / np.linalg.norm(v)


def same_axis(a, b):
    """Angle between two axes, either way round (radians)."""
    return float(np.arccos(min(1.0, abs(np.dot(unit(a), unit(b))))))


def distance_to_line(q, point, direction):
    d = unit(direction)
    v = np.asarray(q, float) - point
    return np.linalg.norm(v - np.outer(v @ d, d), axis=-1)


@pytest.fixture
def rng():
    return np.random.default_rng(7)
