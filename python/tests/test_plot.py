"""The plots render on the sample data without a display, as PNG and SVG."""
import numpy as np
import pytest

import gfit
from conftest import DATA, load

plot = pytest.importorskip("gfit.plot")


def written(path):
    data = path.read_bytes()
    assert data.startswith(b"\x89PNG") if path.suffix == ".png" else b"<svg" in data[:2000]
    return True


@pytest.mark.parametrize("suffix", [".png", ".svg"])
@pytest.mark.parametrize("name,draw", [
    ("roundness", lambda: (plot.roundness, (load("roundness.xy"),))),
    ("cylinder", lambda: (plot.form_map, (gfit.fit_cylinder(load("cylinder.xyz")), load("cylinder.xyz")))),
    ("cone", lambda: (plot.form_map, (gfit.fit_cone(load("cone.xyz")), load("cone.xyz")))),
    ("plane", lambda: (plot.form_map, (gfit.fit_plane(load("plane.xyz")), load("plane.xyz")))),
])
def test_renders(name, draw, suffix, tmp_path):
    function, args = draw()
    fig = function(*args, path=tmp_path / (name + suffix))
    assert written(tmp_path / (name + suffix))
    assert fig.axes


def test_roundness_reports_the_minimum_zone(tmp_path):
    profile = load("roundness.xy")
    fig = plot.roundness(profile)
    width_um = gfit.minmax_circle(profile).width * 1000
    assert f"form error {width_um:.2f} µm" in fig.axes[0].get_title()


def test_deviation_map_with_tolerance(tmp_path):
    if not gfit._core.has_cad:
        pytest.skip("built without gfit::cad")
    points = load("bracket.xyz")
    dev = gfit.deviations(DATA / "bracket.step", points)
    fig = plot.deviation_map(dev, points, path=tmp_path / "dev.png", tolerance=0.015)
    outside = int(np.count_nonzero(np.abs(dev.deviation[dev.valid]) > 0.015))
    assert f"{outside} outside ±0.015 mm" in fig.axes[0].get_title()
    assert written(tmp_path / "dev.png")


def test_form_map_refuses_other_elements():
    points = load("probed-sphere.xyzr")[:, :3]
    with pytest.raises(ValueError, match="result: a form map needs"):
        plot.form_map(gfit.fit_sphere(points), points)
