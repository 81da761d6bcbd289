#!/usr/bin/env python3
"""schema.py GFIT ELEMENT FILE PARAMETERS FIGURES [OPTIONS...]

Runs `GFIT fit ELEMENT FILE OPTIONS --residuals TMP` and checks its result against the layout of
docs/results.md: the common keys in their order, exactly the PARAMETERS (comma-separated) under
"parameters", every *_deg with its *_rad twin, unit axes, and when FIGURES is "deviations" the
residual, min, max and form, which must agree with the --residuals file (the same doubles for
min and max, the RMS to rounding). FIGURES "residual" expects the residual alone, "none" neither.
"""
import csv
import json
import math
import os
import subprocess
import sys
import tempfile


def fail(message, out=""):
    print(message)
    print(out)
    sys.exit(1)


def check_angles(obj, where):
    for key, value in obj.items():
        if key.endswith("_deg"):
            twin = key[:-4] + "_rad"
            if twin not in obj:
                fail(f"{where}: {key} without {twin}")
            if not math.isclose(value, math.degrees(obj[twin]), rel_tol=1e-12, abs_tol=1e-12):
                fail(f"{where}: {key} = {value} is not {twin} = {obj[twin]} in degrees")


def main():
    gfit, element, path, parameters, figures = sys.argv[1:6]
    options = sys.argv[6:]
    expected = parameters.split(",") if parameters else []
    with tempfile.TemporaryDirectory() as tmp:
        residuals = os.path.join(tmp, "residuals.csv")
        extra = ["--residuals", residuals] if figures == "deviations" else []
        run = subprocess.run([gfit, "fit", element, path, *options, *extra], capture_output=True, text=True)
        text = run.stdout + run.stderr
        if run.returncode != 0:
            fail(f"exit code {run.returncode}", text)
        result = json.loads(run.stdout)
        common = ["schema", "element", "status", "units", "parameters"]
        common += {"deviations": ["residual", "min", "max", "form"], "residual": ["residual"], "none": []}[figures]
        common += ["points"]
        keys = list(result)
        if keys[: len(common)] != common:
            fail(f"keys {keys} do not begin with {common}", text)
        if result["schema"] != 1 or result["element"] != element or result["status"] != 1 or result["units"] != "mm":
            fail("schema, element, status or units wrong", text)
        if sorted(result["parameters"]) != sorted(expected):
            fail(f"parameters {sorted(result['parameters'])}, expected {sorted(expected)}", text)
        check_angles(result["parameters"], "parameters")
        for key in ("axis", "normal"):
            if key in result["parameters"]:
                v = result["parameters"][key]
                if not math.isclose(math.hypot(*v), 1.0, rel_tol=1e-12):
                    fail(f"{key} {v} is not a unit vector", text)
        if "uncertainty" in result:
            check_angles(result["uncertainty"], "uncertainty")
            if not result["uncertainty"]["sigma"] >= 0:
                fail("uncertainty with a negative sigma", text)
        if figures == "deviations":
            with open(residuals) as f:
                rows = list(csv.reader(f))
            if rows[0] != ["index", "x", "y", "z", "deviation"] or len(rows) - 1 != result["points"]:
                fail(f"{residuals}: header {rows[0]} and {len(rows) - 1} rows for {result['points']} points", text)
            d = [float(r[4]) for r in rows[1:]]
            rms = math.sqrt(sum(x * x for x in d) / len(d))
            if min(d) != result["min"] or max(d) != result["max"] or result["form"] != max(d) - min(d):
                fail(f"min/max/form {result['min']} {result['max']} {result['form']} against the file's "
                     f"{min(d)} {max(d)}", text)
            if not math.isclose(rms, result["residual"], rel_tol=1e-9, abs_tol=1e-15):
                fail(f"residual {result['residual']} against the file's RMS {rms}", text)
    print(text)


main()
