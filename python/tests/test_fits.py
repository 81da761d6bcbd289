"""Fits of known elements with noise, far from the origin and on partial coverage: the
result comes back to the stated tolerance, and its residuals are each point's distance
from the fitted element as an independent numpy formula gives it, with the RMS the fit
reports."""
import numpy as np
import pytest

import gfit
from conftest import distance_to_line, frame, same_axis, unit

NOISE = 1e-3
FAR = np.array([812.0, -455.0, 1203.0])


def on_plane(rng, n=500):
    normal = unit([0.2, -0.3, 1.0])
    e1, e2 = frame(normal)
    uv = rng.uniform(-40, 40, (n, 2))
    pts = FAR + uv[:, :1] * e1 + uv[:, 1:] * e2 + rng.normal(0, NOISE, (n, 1)) * normal
    return pts, dict(point=FAR, normal=normal)


def on_cylinder(rng, n=400, arc=np.pi):
    axis = unit([0.3, 0.1, 1.0])
    e1, e2 = frame(axis)
    t = rng.uniform(0, arc, n)
    h = rng.uniform(0, 60, n)
    r = 12.5 + rng.normal(0, NOISE, n)
    pts = FAR + np.outer(h, axis) + (r * np.cos(t))[:, None] * e1 + (r * np.sin(t))[:, None] * e2
    return pts, dict(point=FAR, direction=axis, radius=12.5)


def on_sphere(rng, n=300):
    d = rng.normal(size=(n, 3))
    d[:, 2] = np.abs(d[:, 2])  # a hemisphere
    d /= np.linalg.norm(d, axis=1)[:, None]
    return FAR + d * (10.0 + rng.normal(0, NOISE, (n, 1))), dict(centre=FAR, radius=10.0)


def on_circle2(rng, n=200):
    t = rng.uniform(0.2, 2.2, n)  # a 115 degree arc
    c = FAR[:2]
    return c + np.column_stack([np.cos(t), np.sin(t)]) * (25.0 + rng.normal(0, NOISE, (n, 1))), \
        dict(centre=c, radius=25.0)


def on_circle3(rng, n=200):
    normal = unit([1.0, 2.0, 0.5])
    e1, e2 = frame(normal)
    t = rng.uniform(0, 2 * np.pi, n)
    r = 8.0 + rng.normal(0, NOISE, n)
    pts = FAR + (r * np.cos(t))[:, None] * e1 + (r * np.sin(t))[:, None] * e2
    return pts + rng.normal(0, NOISE, (n, 1)) * normal, dict(centre=FAR, normal=normal, radius=8.0)


def on_cone(rng, n=600):
    axis = unit([0.0, 0.2, 1.0])  # towards the apex
    e1, e2 = frame(axis)
    theta = np.radians(30.0)
    h = rng.uniform(5, 40, n)  # distance from the apex down the axis
    t = rng.uniform(0, 2 * np.pi, n)
    rad = h * np.tan(theta)
    pts = FAR - np.outer(h, axis) + (rad * np.cos(t))[:, None] * e1 + (rad * np.sin(t))[:, None] * e2
    normal_dir = (np.cos(t)[:, None] * e1 + np.sin(t)[:, None] * e2) * np.cos(theta) + axis * np.sin(theta)
    return pts + rng.normal(0, NOISE, (n, 1)) * normal_dir, dict(apex=FAR, axis=axis, half_angle=theta)


def on_torus(rng, n=800):
    axis = unit([0.1, -0.2, 1.0])
    e1, e2 = frame(axis)
    u, v = rng.uniform(0, 2 * np.pi, (2, n))
    r1, r2 = 40.0, 8.0
    rr = r2 + rng.normal(0, NOISE, n)
    ring = np.cos(u)[:, None] * e1 + np.sin(u)[:, None] * e2
    pts = FAR + (r1 + rr * np.cos(v))[:, None] * ring + (rr * np.sin(v))[:, None] * axis
    return pts, dict(centre=FAR, axis=axis, r1=r1, r2=r2)


def on_ellipse(rng, n=300):
    t = rng.uniform(0, 2 * np.pi, n)
    a, b, ang = 18.0, 7.0, 0.5
    c = np.array([55.0, 34.0])
    rot = np.array([[np.cos(ang), -np.sin(ang)], [np.sin(ang), np.cos(ang)]])
    pts = c + np.column_stack([a * np.cos(t), b * np.sin(t)]) @ rot.T
    return pts + rng.normal(0, NOISE, (n, 2)), dict(centre=c, major=a, minor=b, angle=ang)


# Independent distances from a fitted element (numpy formulas, not the library's).
def d_plane(r, q):
    return (q - r.point) @ r.normal


def d_sphere(r, q):
    return np.linalg.norm(q - r.centre, axis=1) - r.radius


def d_circle(r, q):
    if r.normal is None:
        return np.linalg.norm(q - r.centre, axis=1) - r.radius
    v = q - r.centre
    h = v @ r.normal
    radial = np.linalg.norm(np.cross(r.normal, v), axis=1) - r.radius
    return np.copysign(np.hypot(radial, h), radial)


def d_cylinder(r, q):
    return distance_to_line(q, r.point, r.direction) - r.radius


def d_cone(r, q):
    v = q - r.apex
    f = v @ r.axis
    g = np.linalg.norm(np.cross(r.axis, v), axis=1)
    return f * np.sin(r.half_angle) + g * np.cos(r.half_angle)


def d_torus(r, q):
    v = q - r.centre
    f = v @ r.axis
    g = np.linalg.norm(np.cross(r.axis, v), axis=1)
    return np.hypot(g - r.r1, f) - r.r2


def d_ellipse(r, q):
    # The foot point's parameter: the nearest of a coarse sampling of the curve, then
    # Newton steps on (p - E(t)) . E'(t) = 0; sign from the implicit equation.
    c, s = np.cos(r.angle), np.sin(r.angle)
    u, v = ((q - r.centre) @ np.array([[c, -s], [s, c]])).T
    a, b = r.major, r.minor
    grid = np.linspace(0, 2 * np.pi, 7201)
    t = grid[np.argmin(np.hypot(u[:, None] - a * np.cos(grid), v[:, None] - b * np.sin(grid)), axis=1)]
    for _ in range(8):
        f = (u - a * np.cos(t)) * -a * np.sin(t) + (v - b * np.sin(t)) * b * np.cos(t)
        df = -(a * np.sin(t)) ** 2 - (u - a * np.cos(t)) * a * np.cos(t) - (b * np.cos(t)) ** 2 \
            - (v - b * np.sin(t)) * b * np.sin(t)
        t = t - f / df
    dist = np.hypot(u - a * np.cos(t), v - b * np.sin(t))
    return np.where((u / a) ** 2 + (v / b) ** 2 < 1, -dist, dist)


CASES = [
    # name, sampler, fit, independent distance, checks of the element against the truth
    ("plane", on_plane, gfit.fit_plane, d_plane,
     lambda r, t: same_axis(r.normal, t["normal"]) < 1e-4 and abs(d_plane(r, t["point"][None])[0]) < 1e-3),
    ("cylinder half", on_cylinder, gfit.fit_cylinder, d_cylinder,
     lambda r, t: same_axis(r.direction, t["direction"]) < 1e-4 and abs(r.radius - 12.5) < 1e-3
     and distance_to_line(t["point"][None], r.point, r.direction)[0] < 2e-3),
    ("sphere cap", on_sphere, gfit.fit_sphere, d_sphere,
     lambda r, t: np.linalg.norm(r.centre - t["centre"]) < 1e-3 and abs(r.radius - 10) < 1e-3),
    ("circle arc", on_circle2, gfit.fit_circle, d_circle,
     lambda r, t: np.linalg.norm(r.centre - t["centre"]) < 1e-3 and abs(r.radius - 25) < 1e-3),
    ("circle in space", on_circle3, gfit.fit_circle, d_circle,
     lambda r, t: np.linalg.norm(r.centre - t["centre"]) < 1e-3 and same_axis(r.normal, t["normal"]) < 1e-3),
    ("cone", on_cone, gfit.fit_cone, d_cone,
     lambda r, t: np.linalg.norm(r.apex - t["apex"]) < 5e-3 and same_axis(r.axis, t["axis"]) < 1e-4
     and abs(r.half_angle - t["half_angle"]) < 1e-4 and r.axis @ t["axis"] > 0),
    ("torus", on_torus, gfit.fit_torus, d_torus,
     lambda r, t: np.linalg.norm(r.centre - t["centre"]) < 1e-3 and abs(r.r1 - 40) < 1e-3
     and abs(r.r2 - 8) < 1e-3 and same_axis(r.axis, t["axis"]) < 1e-4),
    ("ellipse", on_ellipse, gfit.fit_ellipse, d_ellipse,
     lambda r, t: np.linalg.norm(r.centre - t["centre"]) < 1e-3 and abs(r.major - 18) < 1e-3
     and abs(r.minor - 7) < 1e-3 and abs(r.angle - 0.5) < 1e-4),
]


@pytest.mark.parametrize("name,sampler,fit,distance,close", CASES, ids=[c[0] for c in CASES])
def test_known_element_and_its_residuals(name, sampler, fit, distance, close, rng):
    points, truth = sampler(rng)
    result = fit(points)
    assert close(result, truth), result
    res = result.residuals(points)
    assert res.shape == (len(points),)
    np.testing.assert_allclose(res, distance(result, points), rtol=0, atol=1e-9)
    assert np.sqrt(np.mean(res ** 2)) == pytest.approx(result.residual, rel=1e-9)
    assert result.residual < 2 * NOISE
    assert 0 < result.distribution_quality(points)


def test_plane_agrees_with_numpy_decomposition(rng):
    points, _ = on_plane(rng, 2000)
    result = gfit.fit_plane(points)
    centroid = points.mean(axis=0)
    normal = np.linalg.svd(points - centroid)[2][-1]
    assert np.linalg.norm(result.point - centroid) < 1e-9
    assert same_axis(result.normal, normal) < 1e-10


PROBED = [
    # name, fit, ball radius, inside, the element offset from the ball centres
    ("sphere from outside", lambda p, r: gfit.fit_probed_sphere(p, r, inside=False), 1.5, False),
    ("sphere from inside", lambda p, r: gfit.fit_probed_sphere(p, r, inside=True), 1.5, True),
    ("bore", lambda p, r: gfit.fit_probed_cylinder(p, r, inside=True), 2.0, True),
]


@pytest.mark.parametrize("name,fit,ball,inside", PROBED, ids=[c[0] for c in PROBED])
def test_probe_compensation(name, fit, ball, inside, rng):
    surface, truth = (on_sphere if "sphere" in name else on_cylinder)(rng)
    size = truth["radius"]
    centre = truth.get("centre", None)
    if centre is not None:
        radial = unit_rows(surface - centre)
    else:
        v = surface - truth["point"]
        radial = unit_rows(v - np.outer(v @ truth["direction"], truth["direction"]))
    balls = surface + (-ball if inside else ball) * radial
    radii = np.full(len(balls), ball)
    result = fit(balls, radii)
    assert abs(result.radius - size) < 2e-3
    res = result.residuals(balls)
    assert np.sqrt(np.mean(res ** 2)) == pytest.approx(result.residual, rel=1e-9)
    assert np.max(np.abs(res)) < 6 * NOISE  # distances from the touched surface, not the centres


def unit_rows(v):
    return v / np.linalg.norm(v, axis=1)[:, None]


def test_extremal_circles_bound_the_profile(rng):
    t = np.sort(rng.uniform(0, 2 * np.pi, 360))
    r = 12.5 + 0.004 * np.cos(3 * t) + rng.normal(0, 1e-4, t.size)
    profile = np.column_stack([40 + r * np.cos(t), -15 + r * np.sin(t)])
    outer = gfit.min_circumscribed_circle(profile)
    inner = gfit.max_inscribed_circle(profile)
    zone = gfit.minmax_circle(profile)
    assert outer.residuals(profile).max() <= 1e-12 and inner.residuals(profile).min() >= -1e-12
    res = zone.residuals(profile)
    assert res.max() - res.min() == pytest.approx(zone.width, abs=1e-12)
    # No centre gives a narrower zone: not the least-squares circle's, not the outer circle's.
    for centre in (gfit.fit_circle(profile).centre, outer.centre):
        d = np.linalg.norm(profile - centre, axis=1)
        assert zone.width <= d.max() - d.min()
    assert 0.008 < zone.width < 0.0095
    hull = gfit.convex_hull(profile)
    assert np.allclose(profile[gfit.convex_hull(profile, indices=True)], hull)
    assert inner.radius < outer.radius


def test_affine_match_recovers_a_map(rng):
    m = np.array([[1.1, 0.2, 0.0], [-0.1, 0.9, 0.3], [0.05, 0.0, 1.2]])
    t = np.array([10.0, -5.0, 2.0])
    src = rng.uniform(-50, 50, (40, 3))
    result = gfit.affine_match(src, src @ m.T + t)
    np.testing.assert_allclose(result.matrix, m, atol=1e-12)
    np.testing.assert_allclose(result.apply(src), src @ m.T + t, atol=1e-10)


def test_containment_cone_of_normals(rng):
    axis = unit([0.2, 0.1, 1.0])
    e1, e2 = frame(axis)
    phi = rng.uniform(0, 2 * np.pi, 200)
    tilt = np.radians(20.0)
    dirs = np.cos(tilt) * axis + np.sin(tilt) * (np.cos(phi)[:, None] * e1 + np.sin(phi)[:, None] * e2)
    cone = gfit.containment_cone(dirs)
    assert same_axis(cone.axis, axis) < 1e-3 and cone.half_angle == pytest.approx(tilt, abs=1e-3)
    assert np.all(dirs @ cone.axis >= np.cos(cone.half_angle) - 1e-12)


def in_plane(points):
    return (points[0], [0.0, 0.0, 1.0])


RMS = [
    # every fit whose residual is the RMS of its distances: the residuals agree with it
    ("line in plane", lambda p: gfit.fit_line(p, plane=in_plane(p)), "torus.xyz"),
    ("circle in plane", lambda p: gfit.fit_circle(p, plane=in_plane(p)), "torus.xyz"),
    ("ellipse in plane", lambda p: gfit.fit_ellipse(p, plane=([0, 0, 1], [0.1, 0, 1]), direction=[1, 1, 0]),
     "torus.xyz"),
    ("line", gfit.fit_line, "line.xyz"),
    ("probed torus", lambda p: gfit.fit_probed_torus(p[:, :3], p[:, 3]), "probed-torus.xyzr"),
    ("probed sphere", lambda p: gfit.fit_probed_sphere(p[:, :3], p[:, 3]), "probed-sphere.xyzr"),
    ("probed cylinder", lambda p: gfit.fit_probed_cylinder(p, 1.0), "cylinder.xyz"),
    ("probed cone", lambda p: gfit.fit_probed_cone(p, 0.5, inside=True), "cone.xyz"),
    ("probed circle", lambda p: gfit.fit_probed_circle(p, 0.5, inside=True), "roundness.xy"),
    ("probed plane", lambda p: gfit.fit_probed_plane(p, 0.25, np.tile([0.0, 0, 1], (len(p), 1))), "plane.xyz"),
    ("circle in space", gfit.fit_circle, "torus.xyz"),
]


@pytest.mark.parametrize("name,fit,data", RMS, ids=[c[0] for c in RMS])
def test_residuals_rms_is_the_fit_residual(name, fit, data):
    from conftest import load
    points = load(data)
    result = fit(points)
    coords = points[:, :3] if points.shape[1] == 4 else points
    res = result.residuals(coords)
    assert np.sqrt(np.mean(res ** 2)) == pytest.approx(result.residual, rel=1e-9, abs=1e-15)


def test_axis_of_revolution_from_a_cylinder(rng):
    points, truth = on_cylinder(rng, arc=2 * np.pi)
    v = points - truth["point"]
    radial = v - np.outer(v @ truth["direction"], truth["direction"])
    normals = radial / np.linalg.norm(radial, axis=1)[:, None]
    axis = gfit.fit_axis_of_revolution(points, normals)
    assert same_axis(axis.direction, truth["direction"]) < 1e-3
    res = axis.residuals(points, normals)
    assert np.sqrt(np.mean(res ** 2)) == pytest.approx(axis.residual, rel=1e-6)
