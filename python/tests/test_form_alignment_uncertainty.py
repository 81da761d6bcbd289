"""The minimum-zone fits, the alignments and the uncertainties from Python against known
geometry and independent numpy formulas (their agreement with the command-line program is in
test_cli_agreement.py); bad input raises ValueError naming the argument."""
import math

import numpy as np
import pytest

import gfit
from conftest import frame, unit

def test_minimum_zone_plane_recovers_a_known_zone():
    # Points strictly between two planes 0.02 apart, far from the origin, with three
    # contacts on the lower plane and one on the upper one: the zone is that width.
    rng = np.random.default_rng(5)
    normal = unit([0.1, -0.2, 1.0])
    e1, e2 = frame(normal)
    origin = np.array([900.0, -300.0, 150.0])
    uv = rng.uniform(-30, 30, (300, 2))
    h = rng.uniform(0.002, 0.018, 300)
    corners = np.array([[-30, -30], [30, -30], [0, 30], [0, 0]], float)
    uv[:4], h[:4] = corners, [0, 0, 0, 0.02]
    pts = origin + uv[:, :1] * e1 + uv[:, 1:] * e2 + h[:, None] * normal
    z = gfit.minimum_zone_plane(pts)
    assert z.certified
    assert z.width == pytest.approx(0.02, rel=1e-9)
    assert sorted(z.outer.tolist() + z.inner.tolist()) == [0, 1, 2, 3]


def rotation(axis, angle):
    k = unit(axis)
    kx = np.array([[0, -k[2], k[1]], [k[2], 0, -k[0]], [-k[1], k[0], 0]])
    return np.eye(3) + math.sin(angle) * kx + (1 - math.cos(angle)) * kx @ kx


def test_points_to_points_matches_kabsch():
    rng = np.random.default_rng(11)
    a = rng.uniform(-50, 50, (40, 3)) + [2000.0, -1500.0, 800.0]
    r, t = rotation([1, 2, 3], 0.3), np.array([0.5, -2.0, 3.0])
    b = a @ r.T + t + rng.normal(0, 1e-3, a.shape)
    m = gfit.points_to_points(a, b)
    # Independent: Kabsch by numpy's SVD.
    ca, cb = a - a.mean(0), b - b.mean(0)
    u, _, vt = np.linalg.svd(ca.T @ cb)
    d = np.sign(np.linalg.det(vt.T @ u.T))
    rk = vt.T @ np.diag([1, 1, d]) @ u.T
    assert np.abs(m.matrix - rk).max() < 1e-10
    assert np.abs(m.apply(a) - (ca @ rk.T + b.mean(0))).max() < 1e-8
    assert m.rms == pytest.approx(np.sqrt(np.mean(np.sum((m.apply(a) - b) ** 2, 1))), rel=1e-9)


def test_points_to_planes_step_undoes_a_small_motion():
    # Points on the three faces of a corner, moved by a small rotation and shift: one step
    # brings them back to first order, the next to rounding.
    rng = np.random.default_rng(2)
    faces = [np.eye(3)[k] for k in range(3)]
    nominal, normals = [], []
    for k, n in enumerate(faces):
        p = rng.uniform(5, 40, (30, 3))
        p[:, k] = 0.0
        nominal.append(p)
        normals.append(np.tile(n, (30, 1)))
    nominal, normals = np.vstack(nominal), np.vstack(normals)
    r, t = rotation([1, -1, 2], 1e-3), np.array([0.02, -0.01, 0.03])
    measured = nominal @ r.T + t
    step = gfit.points_to_planes_step(measured, nominal, normals)
    moved = step.apply(measured)
    assert np.abs(moved - nominal).max() < 1e-4
    step2 = gfit.points_to_planes_step(moved, nominal, normals)
    assert np.abs(step2.apply(moved) - nominal).max() < 1e-8
    shift = gfit.points_to_planes_step(measured, nominal, normals, translations_only=True)
    assert np.allclose(shift.matrix, np.eye(3), atol=0)


def sphere_cov(points, centre, radius):
    # Independent: the sphere's Jacobian rows ((c - q)/|q - c|, -1), s^2 (J^T J)^-1.
    v = points - centre
    d = np.linalg.norm(v, axis=1)
    j = np.column_stack([-v / d[:, None], -np.ones(len(d))])
    s2 = np.sum((d - radius) ** 2) / (len(d) - 4)
    return s2 * np.linalg.inv(j.T @ j)


def test_uncertainty_against_numpy_and_refusals():
    rng = np.random.default_rng(4)
    d = rng.normal(size=(200, 3))
    d /= np.linalg.norm(d, axis=1)[:, None]
    d[:, 2] = np.abs(d[:, 2])
    pts = [300.0, -200.0, 50.0] + d * (12.0 + rng.normal(0, 0.01, (200, 1)))
    s = gfit.fit_sphere(pts)
    u = s.uncertainty(pts)
    cov = sphere_cov(pts, s.centre, s.radius)
    assert np.allclose(u.independent, cov, rtol=1e-6, atol=0)
    assert u.radius == pytest.approx(math.sqrt(cov[3, 3]), rel=1e-6) and u.diameter == 2 * u.radius
    assert np.allclose(u.position, np.sqrt(np.diag(cov)[:3]), rtol=1e-6)
    assert u.degrees_of_freedom == 196 and u.to_dict()["sigma"] == u.sigma
    # The elements new to the uncertainty: torus and circle in space give finite figures
    # of the size the noise implies.
    axis = unit([0.1, -0.2, 1.0])
    e1, e2 = frame(axis)
    a, b = rng.uniform(0, 2 * np.pi, (2, 400))
    rr = 3.0 + rng.normal(0, 0.01, 400)
    ring = np.cos(a)[:, None] * e1 + np.sin(a)[:, None] * e2
    torus_pts = [50.0, 60.0, 70.0] + (20 + rr * np.cos(b))[:, None] * ring + (rr * np.sin(b))[:, None] * axis
    ut = gfit.fit_torus(torus_pts).uncertainty(torus_pts)
    assert 0.5e-3 < ut.radius < 2e-3 and 0 < ut.second_radius < 2e-3 and ut.independent.shape == (7, 7)
    circle_pts = [50.0, 60.0, 70.0] + 20 * ring[:60] + rng.normal(0, 0.01, (60, 3))
    uc = gfit.fit_circle(circle_pts).uncertainty(circle_pts)
    assert uc.degrees_of_freedom == 2 * 60 - 6 and uc.sigma == pytest.approx(0.01, rel=0.2)
    with pytest.raises(ValueError, match="uncertainty: "):
        gfit.fit_sphere(pts).uncertainty(pts[:4])
    with pytest.raises(ValueError, match="no uncertainty for a probe-compensated"):
        gfit.fit_probed_sphere(pts, 1.0).uncertainty(pts)


BAD = [
    (lambda: gfit.minimum_zone_plane(np.zeros((5, 2))), "points: expected shape (n, 3)"),
    (lambda: gfit.minimum_zone_cylinder(np.r_[np.ones((6, 3)), [[np.nan, 0, 0]]]), "points: row 6 is not finite"),
    (lambda: gfit.minimum_zone_sphere(np.zeros((10, 3))), "minimum_zone_sphere: "),
    (lambda: gfit._core.minimum_zone("cone", np.ones((9, 3))), "element: no minimum zone for a cone"),
    (lambda: gfit.points_to_points(np.ones((5, 3)), np.ones((4, 3))), "target: one target per source point"),
    (lambda: gfit.points_to_points(np.ones((5, 2)), np.ones((5, 2))), "source: expected shape (n, 3)"),
    (lambda: gfit.points_to_points(np.ones((5, 3)), np.ones((5, 3))), "points_to_points: "),
    (lambda: gfit.points_to_points(np.ones((5, 3)), np.full((5, 3), np.inf)), "target: row 0 is not finite"),
    (lambda: gfit.points_to_planes_step(np.ones((5, 3)), np.ones((5, 3)), np.ones((4, 3))), "normals: "),
    (lambda: gfit.points_to_planes_step(np.ones((5, 3)), np.ones((5, 3)), np.ones((5, 3)), lower=[0] * 3),
     "lower: one value per measured point"),
    (lambda: gfit.fit_plane(np.eye(3) * [1, 2, 3] + 0.0).uncertainty(np.zeros((5, 2))), "kind: no uncertainty"),
    (lambda: gfit.align_to_cad("no-such-file.step", np.ones((5, 3))), "path:"),
]


@pytest.mark.parametrize("call,message", BAD, ids=[m for _, m in BAD])
def test_bad_input_raises_value_error(call, message):
    with pytest.raises(ValueError) as e:
        call()
    assert message in str(e.value)
