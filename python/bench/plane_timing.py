"""Times a plane fit of 1e6 points from Python against the same library call made from C++.

    PYTHONPATH=build/python /usr/bin/python3 python/bench/plane_timing.py [n]

The C++ figure is evaluate_plane on a library array built in C++ (gfit._core.time_cpp_plane);
the Python figure is gfit.fit_plane on a float64 numpy array, the whole call with its
argument checks and the typed result. Both are the best of 20 calls.
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

repeats = 20
cpp = _core.time_cpp_plane(points, repeats)
best = float("inf")
for _ in range(repeats):
    t0 = time.perf_counter()
    gfit.fit_plane(points)
    best = min(best, time.perf_counter() - t0)
print(f"{n} points: C++ {cpp * 1e3:.2f} ms, Python {best * 1e3:.2f} ms, ratio {best / cpp:.3f}")
