"""Times a plane fit of 1e6 points from Python against the same library call made from C++.

    PYTHONPATH=build/python /usr/bin/python3 python/bench/plane_timing.py [n]

The C++ figure is evaluate_plane on a library array built in C++ (gfit._core.time_cpp_plane);
the Python figure is gfit.fit_plane on a float64 numpy array, the whole call with its
argument checks and the typed result. Both are the best of 30 calls.
"""
import sys
import time

import numpy as np

import gfit
from gfit import _core

n = int(sys.argv[1]) if len(sys.argv) > 1 else 1_000_000
rng = np.random.default_rng(1)
xy = rng.uniform(-100.0, 100.0, size=(n, 2))
points = np.column_stack([xy, 0.1 * xy[:, 0] - 0.05 * xy[:, 1] + rng.normal(0.0, 0.002, n)])

# The two are timed in alternation, so that load from other processes falls on both alike.
cpp = python = float("inf")
for _ in range(30):
    cpp = min(cpp, _core.time_cpp_plane(points, 1))
    t0 = time.perf_counter()
    gfit.fit_plane(points)
    python = min(python, time.perf_counter() - t0)
print(f"{n} points: C++ {cpp * 1e3:.2f} ms, Python {python * 1e3:.2f} ms, ratio {python / cpp:.3f}")

# What the Python layer adds per call (checks, lending the array, the typed result), on a
# fit too small to cost anything itself: the same on any machine load.
tiny = points[:3].copy()
t0 = time.perf_counter()
for _ in range(20000):
    gfit.fit_plane(tiny)
per_call = (time.perf_counter() - t0) / 20000
print(f"Python layer per call: {per_call * 1e6:.1f} us ({per_call / cpp * 100:.2f} % of the C++ fit of {n} points)")
