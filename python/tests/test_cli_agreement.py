"""The Python results equal the command-line program's, bit for bit, on the sample data: the
same library calls on the same doubles (the program prints the shortest text that reads
back to the same double)."""
import math

import numpy as np
import pytest

import gfit
from conftest import DATA, load, run_cli


def fields(result, names, rename=None):
    """The named fields of a Python result, under the command line's names (`rename`)."""
    d = result.to_dict()
    return {(rename or {}).get(k, k): d[k] for k in names}


def with_quality(result, points, names, rename=None, **kw):
    out = fields(result, names, rename)
    out["distribution_quality"] = result.distribution_quality(points, **kw)
    return out


# The command line's result (docs/results.md) puts the element's values under "parameters"
# and orients axes by a stated rule (the axis point at the foot of the points' centroid, the
# axis towards the first point, normals with their largest component positive). The values
# it takes straight from the library compare exactly; a vector whose sense the rule may flip
# compares up to sign ("~axis"), still exactly; an axis point moved along the axis compares
# as the same line ("@point" with the axis beside it).
AXIS = {"direction": "~axis", "axis": "~axis", "normal": "~normal"}
CASES = [
    # CLI element, file, CLI options, Python call, the fields compared (CLI name: value)
    ("plane", "plane.xyz", [], lambda p: with_quality(gfit.fit_plane(p), p, ["point", "normal", "residual"], AXIS)),
    ("line3", "line.xyz", [],
     lambda p: with_quality(gfit.fit_line(p), p, ["point", "direction", "residual"], AXIS | {"point": "@point"})),
    ("cylinder", "cylinder.xyz", [],
     lambda p: with_quality(gfit.fit_cylinder(p), p, ["point", "direction", "radius", "residual"],
                            AXIS | {"point": "@point"})),
    ("cylinder", "cylinder.xyz", ["--normals", DATA / "cylinder-normals.xyz"],
     lambda p: fields(gfit.fit_cylinder(p, normals=load("cylinder-normals.xyz")),
                      ["point", "direction", "radius", "residual"], AXIS | {"point": "@point"})),
    ("cone", "cone.xyz", [],
     lambda p: with_quality(gfit.fit_cone(p), p, ["apex", "axis", "half_angle", "residual"],
                            {"half_angle": "half_angle_rad"})),
    ("torus", "torus.xyz", [],
     lambda p: with_quality(gfit.fit_torus(p), p, ["centre", "axis", "residual"], AXIS)
     | {"radii": [gfit.fit_torus(p).r1, gfit.fit_torus(p).r2]}),
    ("sphere", "probed-sphere.xyzr", [],
     lambda p: with_quality(gfit.fit_sphere(p[:, :3]), p[:, :3], ["centre", "radius", "residual"])),
    ("circle3", "torus.xyz", [],
     lambda p: with_quality(gfit.fit_circle(p), p, ["centre", "normal", "radius", "residual"], AXIS)),
    ("ellipse", "ellipse.xy", [],
     lambda p: with_quality(gfit.fit_ellipse(p), p, ["centre", "angle", "residual"], {"angle": "angle_rad"})
     | {"semi_axes": [gfit.fit_ellipse(p).major, gfit.fit_ellipse(p).minor]}),
    ("circle", "roundness.xy", [],
     lambda p: with_quality(gfit.fit_circle(p), p, ["centre", "radius", "residual"])),
    ("probed-sphere", "probed-sphere.xyzr", [],
     lambda p: fields(gfit.fit_probed_sphere(p[:, :3], p[:, 3]), ["centre", "radius", "residual"])),
    ("probed-torus", "probed-torus.xyzr", [],
     lambda p: fields(gfit.fit_probed_torus(p[:, :3], p[:, 3]), ["centre", "axis", "residual"], AXIS)
     | {"radii": [gfit.fit_probed_torus(p[:, :3], p[:, 3]).r1, gfit.fit_probed_torus(p[:, :3], p[:, 3]).r2]}),
    ("direct-circle", "roundness.xy", [],
     lambda p: fields(gfit.direct_circle(p), ["centre", "radius"]) | {"chi": gfit.direct_circle(p).residual}),
    ("direct-sphere", "probed-sphere.xyzr", [],
     lambda p: fields(gfit.direct_sphere(p[:, :3]), ["centre", "radius"])
     | {"chi": gfit.direct_sphere(p[:, :3]).residual}),
    ("direct-ellipse", "ellipse.xy", [],
     lambda p: {"centre": gfit.direct_ellipse(p).centre.tolist(),
                "semi_axes": [gfit.direct_ellipse(p).major, gfit.direct_ellipse(p).minor],
                "chi": gfit.direct_ellipse(p).residual}),
    ("minmax-circle", "roundness.xy", [], lambda p: fields(gfit.minmax_circle(p), ["centre", "radius", "width"])),
    ("min-circle", "roundness.xy", [], lambda p: fields(gfit.min_circumscribed_circle(p), ["centre", "radius"])),
    ("max-circle", "roundness.xy", [], lambda p: fields(gfit.max_inscribed_circle(p), ["centre", "radius"])),
    ("hull", "roundness.xy", [], lambda p: {"hull": gfit.convex_hull(p).tolist()}),
]


def cli_value(cli, key):
    return cli["parameters"][key] if key in cli["parameters"] else cli[key]


@pytest.mark.parametrize("element,name,options,call", CASES,
                         ids=[f"{c[0]} {c[1]}{' ' + str(c[2][0]) if c[2] else ''}" for c in CASES])
def test_equal_to_cli(element, name, options, call, tmp_path):
    path = DATA / name
    if name.endswith(".xyzr") and not element.startswith("probed"):  # the centres alone
        path = tmp_path / "centres.xyz"
        np.savetxt(path, load(name)[:, :3], fmt="%.17g")
    cli = run_cli("fit", element, path, *options)
    assert cli["schema"] == 1 and cli["status"] == 1
    python = call(load(name))
    for key, value in python.items():
        value = np.asarray(value).tolist() if isinstance(value, np.ndarray) else value
        if key.startswith("~"):  # the same doubles, up to the sense
            got = cli_value(cli, key[1:])
            assert got == value or got == [-v for v in value], key
        elif key.startswith("@"):  # the same axis line through another point of it
            got = np.array(cli_value(cli, key[1:]))
            axis = np.array(cli["parameters"]["axis"])
            offset = got - np.array(value)
            assert np.linalg.norm(offset - axis * offset.dot(axis)) < 1e-9 * (1 + np.linalg.norm(value)), key
        else:
            assert cli_value(cli, key) == value, key  # exact: the same doubles


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
    # CLI form, sample file, Python call, the CLI's name for the direction (None: no direction)
    ("plane", "plane.xyz", gfit.minimum_zone_plane, "normal"),
    ("line3", "line.xyz", gfit.minimum_zone_line, "axis"),
    ("cylinder", "cylinder.xyz", gfit.minimum_zone_cylinder, "axis"),
    ("sphere", "probed-sphere.xyzr", gfit.minimum_zone_sphere, None),
]


def same_direction(cli, values):
    """The CLI states directions under one orientation rule; the library's sign is its own."""
    values = list(values)
    return cli == values or cli == [-v for v in values]


@pytest.mark.parametrize("form,name,call,direction", FORMS, ids=[f[0] for f in FORMS])
def test_minimum_zone_equal_to_cli(form, name, call, direction, tmp_path):
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
    where = "centre" if form == "sphere" else "point"
    mz, ls = cli["minimum_zone"], cli["least_squares"]
    if direction:
        assert same_direction(mz[direction], z.direction.tolist())
        assert same_direction(ls[direction], z.least_squares_direction.tolist())
    else:
        assert z.direction is None
    if form in ("plane", "sphere"):
        assert mz[where] == z.point.tolist() and ls[where] == z.least_squares_point.tolist()
    else:
        # An axis point: the CLI states it at the foot of the centroid, so it lies on the same line.
        for cli_point, point, axis in ((mz[where], z.point, z.direction), (ls[where], z.least_squares_point,
                                                                            z.least_squares_direction)):
            offset = np.asarray(cli_point) - point
            assert np.linalg.norm(offset - offset.dot(axis) * axis) <= 1e-9 * (1 + np.linalg.norm(point))
    if form in ("sphere", "cylinder"):
        assert mz["radius"] == z.radius
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
