"""The Python results equal the command-line program's, bit for bit, on the sample data: the
same library calls on the same doubles (the program prints the shortest text that reads
back to the same double)."""
import math

import numpy as np
import pytest

import gfit
from conftest import DATA, load, run_cli


def fields(result, names):
    d = result.to_dict()
    return {k: d[k] for k in names}


def with_quality(result, points, names, **kw):
    out = fields(result, names)
    out["distribution_quality"] = result.distribution_quality(points, **kw)
    return out


CASES = [
    # CLI element, file, CLI options, Python call, the fields compared (CLI name: value)
    ("plane", "plane.xyz", [], lambda p: with_quality(gfit.fit_plane(p), p, ["point", "normal", "residual"])),
    ("line3", "line.xyz", [], lambda p: with_quality(gfit.fit_line(p), p, ["point", "direction", "residual"])),
    ("cylinder", "cylinder.xyz", [],
     lambda p: with_quality(gfit.fit_cylinder(p), p, ["point", "direction", "radius", "residual"])),
    ("cylinder", "cylinder.xyz", ["--normals", DATA / "cylinder-normals.xyz"],
     lambda p: fields(gfit.fit_cylinder(p, normals=load("cylinder-normals.xyz")),
                      ["point", "direction", "radius", "residual"])),
    ("cone", "cone.xyz", [],
     lambda p: with_quality(gfit.fit_cone(p), p, ["apex", "axis", "half_angle", "residual"])),
    ("torus", "torus.xyz", [],
     lambda p: with_quality(gfit.fit_torus(p), p, ["centre", "axis", "r1", "r2", "residual"])),
    ("sphere", "probed-sphere.xyzr", [],
     lambda p: with_quality(gfit.fit_sphere(p[:, :3]), p[:, :3], ["centre", "radius", "residual"])),
    ("circle3", "torus.xyz", [],
     lambda p: with_quality(gfit.fit_circle(p), p, ["centre", "normal", "radius", "residual"])),
    ("ellipse", "ellipse.xy", [],
     lambda p: with_quality(gfit.fit_ellipse(p), p, ["centre", "angle", "residual"])
     | {"major": gfit.fit_ellipse(p).major, "minor": gfit.fit_ellipse(p).minor}),
    ("circle", "roundness.xy", [],
     lambda p: with_quality(gfit.fit_circle(p), p, ["centre", "radius", "residual"])),
    ("probed-sphere", "probed-sphere.xyzr", [],
     lambda p: fields(gfit.fit_probed_sphere(p[:, :3], p[:, 3]), ["centre", "radius", "residual"])),
    ("probed-torus", "probed-torus.xyzr", [],
     lambda p: fields(gfit.fit_probed_torus(p[:, :3], p[:, 3]), ["centre", "axis", "r1", "r2", "residual"])),
    ("direct-circle", "roundness.xy", [],
     lambda p: fields(gfit.direct_circle(p), ["centre", "radius"]) | {"chi": gfit.direct_circle(p).residual}),
    ("direct-sphere", "probed-sphere.xyzr", [],
     lambda p: fields(gfit.direct_sphere(p[:, :3]), ["centre", "radius"])
     | {"chi": gfit.direct_sphere(p[:, :3]).residual}),
    ("direct-ellipse", "ellipse.xy", [],
     lambda p: {"centre": gfit.direct_ellipse(p).centre.tolist(), "a_length": gfit.direct_ellipse(p).major,
                "b_length": gfit.direct_ellipse(p).minor, "angle": gfit.direct_ellipse(p).angle,
                "a_axis": gfit.direct_ellipse(p).major_axis.tolist(), "chi": gfit.direct_ellipse(p).residual}),
    ("minmax-circle", "roundness.xy", [], lambda p: fields(gfit.minmax_circle(p), ["centre", "radius", "width"])),
    ("min-circle", "roundness.xy", [], lambda p: fields(gfit.min_circumscribed_circle(p), ["centre", "radius"])),
    ("max-circle", "roundness.xy", [], lambda p: fields(gfit.max_inscribed_circle(p), ["centre", "radius"])),
    ("hull", "roundness.xy", [], lambda p: {"hull": gfit.convex_hull(p).tolist()}),
]


@pytest.mark.parametrize("element,name,options,call", CASES,
                         ids=[f"{c[0]} {c[1]}{' ' + str(c[2][0]) if c[2] else ''}" for c in CASES])
def test_equal_to_cli(element, name, options, call, tmp_path):
    path = DATA / name
    if name.endswith(".xyzr") and not element.startswith("probed"):  # the centres alone
        path = tmp_path / "centres.xyz"
        np.savetxt(path, load(name)[:, :3], fmt="%.17g")
    cli = run_cli("fit", element, path, *options)
    assert cli["status"] == 1
    python = call(load(name))
    for key, value in python.items():
        assert cli[key] == value, key  # exact: the same doubles


def test_cad_deviations_equal_to_cli():
    if not gfit._core.has_cad:
        pytest.skip("built without gfit::cad")
    cli = run_cli("deviations", "--cad", DATA / "bracket.step", DATA / "bracket.xyz", "--json")
    dev = gfit.deviations(DATA / "bracket.step", load("bracket.xyz"))
    rows = cli["points"]
    assert [bool(r["valid"]) for r in rows] == dev.valid.tolist()
    assert dev.invalid == cli["summary"]["invalid"] > 0  # the two points beyond the edges
    for r, nominal, normal, d in zip(rows, dev.nominal, dev.normal, dev.deviation):
        if r["valid"]:
            assert (r["nominal"], r["normal"], r["deviation"]) == (nominal.tolist(), normal.tolist(), d)
    for key in ("count", "min", "max", "rms"):
        assert cli["summary"][key] == getattr(dev, key), key


FORMS = [
    # CLI form, sample file, Python call, names of the CLI's direction and radius fields
    ("plane", "plane.xyz", gfit.minimum_zone_plane, "normal", False),
    ("line3", "line.xyz", gfit.minimum_zone_line, "direction", False),
    ("cylinder", "cylinder.xyz", gfit.minimum_zone_cylinder, "direction", True),
    ("sphere", "probed-sphere.xyzr", gfit.minimum_zone_sphere, None, True),
]


@pytest.mark.parametrize("form,name,call,direction,radial", FORMS, ids=[f[0] for f in FORMS])
def test_minimum_zone_equal_to_cli(form, name, call, direction, radial, tmp_path):
    pts = load(name)[:, :3]
    path = DATA / name
    if name.endswith(".xyzr"):
        path = tmp_path / "centres.xyz"
        np.savetxt(path, pts, fmt="%.17g")
    cli = run_cli("form", form, path)
    z = call(pts)
    assert cli["status"] == z.status
    assert cli["minimum_zone_width"] == z.width and cli["least_squares_width"] == z.least_squares_width
    assert 0 < z.width <= z.least_squares_width
    assert cli["minimum_zone_point"] == z.point.tolist()
    assert cli["least_squares_point"] == z.least_squares_point.tolist()
    if direction:
        assert cli["minimum_zone_" + direction] == z.direction.tolist()
        assert cli["least_squares_" + direction] == z.least_squares_direction.tolist()
    else:
        assert z.direction is None
    if radial:
        assert cli["minimum_zone_radius"] == z.radius
    assert cli["outer_contacts"] == z.outer_points.tolist()
    if form != "line3":
        assert cli["inner_contacts"] == z.inner_points.tolist()
    assert cli["certificate"] == z.certificate and cli["iterations"] == z.iterations


def test_alignment_to_cad_equal_to_cli():
    if not gfit._core.has_cad:
        pytest.skip("built without gfit::cad")
    pts = load("bracket-displaced.xyz")
    for options, kwargs in (([], {}), (["--lock-rotations", "0,0,1"], {"lock_rotations": [[0, 0, 1]]}),
                            (["--scale", "2"], {"scale_passes": 2})):
        cli = run_cli("align", "--cad", DATA / "bracket.step", DATA / "bracket-displaced.xyz", "--json", *options)
        a = gfit.align_to_cad(DATA / "bracket.step", pts, **kwargs)
        assert cli["status"] == a.status == 1
        assert cli["transform"] == a.transform.tolist()
        cli_dev = [d[1] for d in cli["deviations"]]
        assert [v for v in cli_dev if v is not None and math.isfinite(v)] == a.deviation[np.isfinite(a.deviation)].tolist()
        for key in ("rms", "min", "max", "invalid"):
            assert cli["summary"][key] == getattr(a, key), key
        if kwargs.get("scale_passes"):
            assert (cli["summary"]["scale_x"], cli["summary"]["scale_y"]) == (a.scale_x, a.scale_y)
        else:
            assert cli["summary"]["steps"] == a.steps
