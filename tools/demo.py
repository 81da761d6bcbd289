#!/usr/bin/env python3
"""The command-line demo of `make demo`: fits the sample data of data/ with the gfit program and
prints each fitted value beside the nominal the data were made from (the files' headers,
scripts/make-demo-data and tools/make_demo_part.cpp say how)."""
import json
import math
import subprocess
import sys

GFIT = sys.argv[1] if len(sys.argv) > 1 else "build/tools/gfit"
HAS_CAD = len(sys.argv) > 2 and sys.argv[2] == "cad"
S2, C2 = math.sin(math.radians(2)), math.cos(math.radians(2))

# Title, command-line arguments, then (what, where in the result, nominal) to compare.
CASES = [
    ("plane through data/plane.xyz (face A: 2 degrees tilt about y)", ["fit", "plane", "data/plane.xyz"],
     [("normal", "parameters.normal", [S2, 0.0, C2]), ("point", "parameters.point", [152.4, 88.9, 41.275])]),
    ("3-D line through data/line.xyz (a plate edge, 70 mm)", ["fit", "line3", "data/line.xyz"],
     [("axis (to the 1st point)", "parameters.axis", [-0.6, -0.8, 0.0])]),
    ("cylinder through data/cylinder.xyz (a bore of 24 mm)", ["fit", "cylinder", "data/cylinder.xyz"],
     [("diameter", "parameters.diameter", 24.0)]),
    ("the same bore, with its surface normals",
     ["fit", "cylinder", "data/cylinder.xyz", "--normals", "data/cylinder-normals.xyz"],
     [("diameter", "parameters.diameter", 24.0)]),
    ("ellipse through data/ellipse.xy (a 36 x 14 mm pocket turned 30 degrees)", ["fit", "ellipse", "data/ellipse.xy"],
     [("semi-axes", "parameters.semi_axes", [18.0, 7.0]), ("angle (deg)", "parameters.angle_deg", 30.0)]),
    ("sphere touched by a 2 mm probe ball (a 25 mm reference sphere)",
     ["fit", "probed-sphere", "data/probed-sphere.xyzr"], [("diameter", "parameters.diameter", 25.0)]),
    ("cone through data/cone.xyz", ["fit", "cone", "data/cone.xyz"],
     [("apex", "parameters.apex", [10.0, 20.0, 30.0]), ("axis", "parameters.axis", [0.0, 0.6, 0.8]),
      ("half-angle (deg)", "parameters.half_angle_deg", 30.0)]),
    ("torus through data/torus.xyz (a pipe elbow)", ["fit", "torus", "data/torus.xyz"],
     [("radii [bend, tube]", "parameters.radii", [36.0, 12.0])]),
    ("roundness of data/roundness.xy: minimum-zone circle (three 4 um lobes)",
     ["fit", "minmax-circle", "data/roundness.xy"],
     [("centre", "parameters.centre", [40.0, -15.0]), ("radius", "parameters.radius", 12.5),
      ("roundness", "form", 0.008)]),
]
CAD_CASES = [
    ("deviations of data/bracket.xyz from data/bracket.step (5 um noise, top face 0.02 mm high)",
     ["deviations", "--cad", "data/bracket.step", "data/bracket.xyz", "--json"],
     [("top face offset + noise", "summary.max", "0.02 + up to 3 x 0.005"),
      ("points no face sees", "summary.invalid", 2)]),
    ("align data/bracket-displaced.xyz to data/bracket.step (moved 0.4 deg about (1,1,1))",
     ["align", "--cad", "data/bracket.step", "data/bracket-displaced.xyz", "--json"],
     [("rotation vector (deg)", "rotation_vector_degrees", [-0.4 / math.sqrt(3)] * 3),
      ("RMS after alignment", "summary.rms", "0.005 noise, with the top face 0.02 high")]),
]


def show(v):
    if isinstance(v, list):
        return "[" + ", ".join(f"{x:.5f}" for x in v) + "]"
    return f"{v:.5f}" if isinstance(v, float) else str(v)


def main():
    failed = False
    for title, args, checks in CASES + (CAD_CASES if HAS_CAD else []):
        print(f"== {title}\n   gfit {' '.join(args)}")
        run = subprocess.run([GFIT, *args], capture_output=True, text=True)
        if run.returncode != 0:
            print(run.stdout + run.stderr)
            failed = True
            continue
        result = json.loads(run.stdout)
        for what, where, nominal in checks:
            value = result
            for key in where.split("."):
                value = value[key]
            print(f"   {what:<24} {show(value):<40} nominal {show(nominal)}")
        if "residual" in result:
            print(f"   {'RMS, form':<24} {show(result['residual'])}, {show(result['form'])}")
    return 1 if failed else 0


sys.exit(main())
