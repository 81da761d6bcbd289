"""The Python part of `make demo`: a cylinder fitted from Python, its form map, the
roundness plot of a bore's profile and the deviation map of a part against its CAD model.

    PYTHONPATH=build/python /usr/bin/python3 python/examples/demo.py [FOLDER]

The plots go to FOLDER (default docs/python) as PNG files.
"""
import pathlib
import sys

import numpy as np

import gfit
import gfit.plot

root = pathlib.Path(__file__).resolve().parents[2]
data = root / "data"
out = pathlib.Path(sys.argv[1] if len(sys.argv) > 1 else root / "docs" / "python")
out.mkdir(parents=True, exist_ok=True)


def load(name):
    return np.loadtxt(data / name, comments="#")


points = load("cylinder.xyz")
cylinder = gfit.fit_cylinder(points)
print("cylinder:", cylinder.to_dict())
print("largest deviation (mm):", np.abs(cylinder.residuals(points)).max())
gfit.plot.form_map(cylinder, points, out / "cylinder-form-map.png", dpi=72)

profile = load("roundness.xy")
zone = gfit.minmax_circle(profile)
print(f"roundness of data/roundness.xy: {zone.width * 1000:.2f} um (minimum zone)")
gfit.plot.roundness(profile, out / "roundness.png", dpi=72)

if gfit._core.has_cad:
    measured = load("bracket.xyz")
    deviations = gfit.deviations(data / "bracket.step", measured)
    print("deviations from data/bracket.step:", deviations.to_dict())
    gfit.plot.deviation_map(deviations, measured, out / "bracket-deviations.png", tolerance=0.02, dpi=72)
print("plots written to", out)
