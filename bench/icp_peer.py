#!/usr/bin/env python3
"""gfit's surface best fit beside Open3D's point-to-plane ICP, on the same points.

Runs bench_alignment's surface best fit cases with GFIT_BENCH_INPUTS set, so that each case
writes its displaced measured points, the true motion, the transform gfit reached and a
dense sample of the nominal surface with normals. Then runs Open3D's registration_icp
(TransformationEstimationPointToPlane, from the identity, to convergence) from the measured
points onto the dense sample, and prints per case: gfit's time to convergence (the
benchmark's time per fit), Open3D's (median of several calls; each call builds its k-d tree
of the sample, whose own cost is shown apart), their ratio, and the pose error of each
against the true motion: the distance by which the centroid of the measured points is
misplaced (mm) and the angle of the residual rotation (degrees).

Usage: icp_peer.py [--bench build/bench/bench_alignment] [--threads 1] ...
Needs Debian's python3-open3d (scripts/install-deps --bench).
"""
import argparse
import json
import os
import statistics
import subprocess
import sys
import tempfile
import time

import numpy as np


def parse_args():
    ap = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    ap.add_argument("--bench", default="build/bench/bench_alignment", help="the bench_alignment program")
    ap.add_argument("--threads", type=int, default=1,
                    help="OpenMP threads for Open3D (gfit's surface best fit runs on one)")
    ap.add_argument("--max-distance", type=float, default=2.0, help="ICP correspondence distance, mm")
    ap.add_argument("--max-iteration", type=int, default=200)
    ap.add_argument("--relative", type=float, default=1e-9,
                    help="ICP stops when fitness and RMSE change by less than this")
    ap.add_argument("--min-time", type=float, default=1.0, help="seconds spent timing each Open3D case")
    ap.add_argument("--repetitions", type=int, default=3, help="benchmark repetitions for gfit (median taken)")
    return ap.parse_args()


def pose_error(fitted, truth, points):
    """Misplacement of the points' centroid (mm) and angle of R_fitted R_truth^T (degrees)."""
    c = np.append(points.mean(axis=0), 1.0)
    dt = np.linalg.norm((fitted @ c)[:3] - (truth @ c)[:3])
    # |R1 - R2|_F = 2 sqrt(2) sin(angle / 2): exact for small angles, unlike the trace form.
    s = np.linalg.norm(fitted[:3, :3] - truth[:3, :3]) / (2 * np.sqrt(2))
    return dt, np.degrees(2 * np.arcsin(min(1.0, s)))


def timed(fns, min_time):
    """Median seconds of each of `fns`, called in alternation so that all see the same load."""
    times = [[] for _ in fns]
    start = time.perf_counter()
    while len(times[0]) < 5 or time.perf_counter() - start < min_time:
        for fn, ts in zip(fns, times):
            t = time.perf_counter()
            fn()
            ts.append(time.perf_counter() - t)
    return [statistics.median(ts) for ts in times]


def count_iterations(o3d, run):
    """Open3D does not return its iteration count; read it from its debug log (stdout)."""
    sys.stdout.flush()
    saved = os.dup(1)
    with tempfile.TemporaryFile(mode="w+") as log:
        os.dup2(log.fileno(), 1)
        o3d.utility.set_verbosity_level(o3d.utility.VerbosityLevel.Debug)
        try:
            run()
        finally:
            o3d.utility.set_verbosity_level(o3d.utility.VerbosityLevel.Warning)
            sys.stdout.flush()
            os.dup2(saved, 1)
            os.close(saved)
        log.seek(0)
        return sum("ICP Iteration #" in line for line in log)


def main():
    args = parse_args()
    os.environ["OMP_NUM_THREADS"] = str(args.threads)  # before Open3D starts OpenMP
    try:
        import open3d as o3d
    except ImportError:
        sys.exit("icp_peer.py: Open3D is missing (Debian's python3-open3d: scripts/install-deps --bench)")
    reg = o3d.pipelines.registration

    with tempfile.TemporaryDirectory() as d:
        run = subprocess.run([args.bench, "--benchmark_filter=BM_SurfaceBestfit", "--benchmark_format=json",
                              f"--benchmark_repetitions={args.repetitions}", "--benchmark_report_aggregates_only=true"],
                             env=dict(os.environ, GFIT_BENCH_INPUTS=d), check=True, capture_output=True, text=True)
        to_ms = {"ns": 1e-6, "us": 1e-3, "ms": 1.0, "s": 1e3}
        rows, len_points = [], {}
        for b in json.loads(run.stdout)["benchmarks"]:
            if b.get("aggregate_name", "median") != "median":
                continue
            # BM_SurfaceBestfit/points:1000/bspline:0
            fields = dict(f.split(":") for f in b["run_name"].split("/")[1:])
            surface = "bspline" if fields["bspline"] == "1" else "box"
            case = f"{surface}-{fields['points']}"
            points = np.loadtxt(f"{d}/{case}-points.xyz")
            truth = np.loadtxt(f"{d}/{case}-truth.txt")
            gfit_xform = np.loadtxt(f"{d}/{case}-gfit.txt")
            dense = np.loadtxt(f"{d}/{surface}-dense.xyzn")
            len_points[case] = len(points)

            source = o3d.geometry.PointCloud(o3d.utility.Vector3dVector(points))
            target = o3d.geometry.PointCloud(o3d.utility.Vector3dVector(dense[:, :3]))
            target.normals = o3d.utility.Vector3dVector(dense[:, 3:])
            criteria = reg.ICPConvergenceCriteria(relative_fitness=args.relative, relative_rmse=args.relative,
                                                  max_iteration=args.max_iteration)

            def icp():
                return reg.registration_icp(source, target, args.max_distance, np.identity(4),
                                            reg.TransformationEstimationPointToPlane(), criteria)

            result = icp()
            o3d_time, kd_time = timed([icp, lambda: o3d.geometry.KDTreeFlann(target)], args.min_time)
            iterations = count_iterations(o3d, icp)
            gfit_ms = b["real_time"] * to_ms[b["time_unit"]]
            rows.append((case, len(dense), gfit_ms, int(b["steps"]), o3d_time * 1e3, kd_time * 1e3, iterations,
                         len(result.correspondence_set), pose_error(gfit_xform, truth, points),
                         pose_error(np.asarray(result.transformation), truth, points)))

    print(f"Open3D {o3d.__version__} point-to-plane ICP, {args.threads} thread(s), correspondence distance "
          f"{args.max_distance} mm, stop at changes < {args.relative} or {args.max_iteration} iterations")
    head = ("case", "sample", "gfit ms", "steps", "o3d ms", "kd ms", "iters", "o3d/gfit", "-kd/gfit",
            "gfit mm", "gfit deg", "o3d mm", "o3d deg")
    print("{:<14}{:>7}{:>9}{:>6}{:>9}{:>8}{:>6}{:>9}{:>9}{:>9}{:>9}{:>9}{:>9}".format(*head))
    for case, ns, g, steps, o, kd, it, corr, (ge, gr), (oe, orr) in rows:
        cap = "*" if it >= args.max_iteration else ""  # stopped by the cap, not converged
        print(f"{case:<14}{ns:>7}{g:>9.2f}{steps:>6}{o:>9.2f}{kd:>8.2f}{str(it) + cap:>6}{o / g:>9.2f}"
              f"{(o - kd) / g:>9.2f}{ge:>9.1e}{gr:>9.1e}{oe:>9.1e}{orr:>9.1e}")
        if corr < len_points[case]:
            print(f"  ({case}: Open3D found correspondences for {corr} of {len_points[case]} points)")
    print("sample: points in the dense sample of the surface (0.25 mm grid); gfit ms: the benchmark's median time\n"
          "to convergence (tolerance 1e-9 mm); o3d ms: one registration_icp call, which builds a k-d tree of the\n"
          "sample (kd ms: that build alone; -kd/gfit: the ratio without it); errors: misplacement of the points'\n"
          "centroid (mm) and residual rotation (deg) against the true motion.")


if __name__ == "__main__":
    main()
