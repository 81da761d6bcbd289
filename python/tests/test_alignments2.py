"""The RPS, 2-D curve, points-to-lines and maxi-min alignments from Python: known motions come
back, the results equal the command-line program's bit for bit, bad input names the argument."""
import math

import numpy as np
import pytest

import gfit
from conftest import DATA, run_cli


def rotation(axis, angle):
    a = np.asarray(axis, float) / np.linalg.norm(axis)
    k = np.array([[0, -a[2], a[1]], [a[2], 0, -a[0]], [-a[1], a[0], 0]])
    return np.eye(3) + math.sin(angle) * k + (1 - math.cos(angle)) * k @ k


def rigid(axis, angle, shift):
    t = np.eye(4)
    t[:3, :3], t[:3, 3] = rotation(axis, angle), shift
    return t


def moved(t, p):
    return p @ t[:3, :3].T + t[:3, 3]


# A 3-2-1 set on a car-body sized part far from the origin: three Z locks, two Y, one X.
NOMINAL = np.array([[1200.0, 400, 900], [2800, 450, 905], [2000, -600, 910],
                    [1500, 300, 880], [2500, 320, 880], [1900, -500, 870]])
LOCKS = np.array([[0, 0, 1], [0, 0, 1], [0, 0, 1], [0, 1, 0], [0, 1, 0], [1, 0, 0]])


def rps_objective(t, m, q, locks, w):
    r = (moved(t, m) - q) * locks
    return float(np.sum(w[:, None] * r * r))


def test_rps_recovers_motion_and_is_optimal(rng):
    truth = rigid((0.3, -1, 2), 0.004, (1.5, -0.8, 2.2))
    measured = moved(np.linalg.inv(truth), NOMINAL)
    fit = gfit.rps_fit(measured, NOMINAL, LOCKS)
    assert np.allclose(fit.transform, truth, atol=1e-9, rtol=0)
    assert fit.max_deviation < 1e-9 and fit.rms < 1e-9
    # Over-determined and noisy: two more records with all axes locked, weighted. The result
    # is a minimum of the stated objective (no small rigid move lowers it).
    q = np.vstack([NOMINAL, [[1700.0, 0, 950], [2300, 100, 940]]])
    locks = np.vstack([LOCKS, np.ones((2, 3))])
    w = np.array([1, 1, 1, 2, 2, 1, 0.5, 3.0])
    m = moved(np.linalg.inv(truth), q) + rng.normal(0, 0.05, q.shape)
    fit = gfit.rps_fit(m, q, locks, weights=w)
    best = rps_objective(fit.transform, m, q, locks, w)
    assert math.isclose(fit.rms, math.sqrt(best / np.sum(w * locks.sum(axis=1))), rel_tol=1e-9)
    for axis in np.eye(3):
        for h in (1e-6, -1e-6):
            for step in (rigid(axis, h, (0, 0, 0)), rigid(axis, 0, 1e-4 * h / abs(h) * axis)):
                assert rps_objective(step @ fit.transform, m, q, locks, w) >= best * (1 - 1e-12)
    # Bit for bit the same on a second call.
    again = gfit.rps_fit(m, q, locks, weights=w)
    assert np.array_equal(again.transform, fit.transform) and again.rms == fit.rms


def test_rps_local_frames_and_refusal():
    # The same locks expressed in a frame turned about z by 90 degrees: x and y swap roles.
    truth = rigid((1, 1, 0), 0.002, (0.4, 0.1, -0.3))
    measured = moved(np.linalg.inv(truth), NOMINAL)
    frame = np.array([[0, 0, 1.0], [0, 1.0, 0]])  # normal z, x axis along world y
    fit = gfit.rps_fit(measured, NOMINAL, LOCKS[:, [1, 0, 2]].astype(bool), frame=frame)
    assert np.allclose(fit.transform, truth, atol=1e-9, rtol=0)
    per_record = gfit.rps_fit(measured, NOMINAL, LOCKS[:, [1, 0, 2]], frame=np.tile(frame, (6, 1, 1)))
    assert np.array_equal(per_record.transform, fit.transform)
    # Only the Z locks: the set leaves x, y and the turn about z free, and says so.
    with pytest.raises(ValueError, match="rps_fit: .*translation"):
        gfit.rps_fit(measured[:3], NOMINAL[:3], LOCKS[:3])


def test_rps_equals_cli(tmp_path):
    m = moved(np.linalg.inv(rigid((0.3, -1, 2), 0.004, (1.5, -0.8, 2.2))), NOMINAL) + 0.01
    w = np.array([1, 2, 1, 1, 0.5, 1.0])
    path = tmp_path / "rps.txt"
    np.savetxt(path, np.hstack([m, NOMINAL, LOCKS, w[:, None]]), fmt="%.17g")
    cli = run_cli("align", "--rps", path)
    py = gfit.rps_fit(m, NOMINAL, LOCKS, weights=w).to_dict()
    assert cli["status"] == 1
    assert (cli["transform"], cli["rms"], cli["max_deviation"]) == (py["transform"], py["rms"], py["max_deviation"])


def slot(x=0.0, y=0.0):
    """A slot-like closed profile, counter-clockwise: two straight sides and two half circles."""
    return [("segment", (x, y - 5), (x + 20, y - 5)), ("arc", (x + 20, y), 5.0, -math.pi / 2, math.pi),
            ("segment", (x + 20, y + 5), (x, y + 5)), ("arc", (x, y), 5.0, math.pi / 2, math.pi)]


SLOT = slot()


def slot_points(offset=(0.0, 0.0)):
    s = np.linspace(0.05, 0.95, 12)
    sides = [np.c_[20 * s, -5 + 0 * s], np.c_[20 - 20 * s, 5 + 0 * s]]
    a = np.linspace(-1.4, 1.4, 9)
    arcs = [np.c_[20 + 5 * np.cos(a), 5 * np.sin(a)], np.c_[-5 * np.cos(a), -5 * np.sin(a)]]
    return np.vstack(sides + arcs) + offset


@pytest.mark.parametrize("offset", [(0.0, 0.0), (5000.0, -3000.0)])
def test_curve_fit_recovers_motion(offset):
    profile = slot(*offset)
    c, s = math.cos(0.01), math.sin(0.01)
    centre = np.add(offset, (10.0, 0.0))  # turned about the slot's middle, then shifted
    r = np.array([[c, -s], [s, c]])
    truth = np.eye(3)
    truth[:2, :2], truth[:2, 2] = r, centre - r @ centre + (0.3, -0.2)
    nominal = slot_points(offset)
    measured = (nominal - truth[:2, 2]) @ truth[:2, :2]  # truth^-1 applied
    fit = gfit.curve_fit(profile, measured, tol=1e-12)
    assert fit.invalid == 0 and fit.steps < 50
    assert np.allclose(fit.transform, truth, atol=1e-9, rtol=0)
    assert fit.max_distance < 1e-9
    # Measured 0.01 outside (inside) everywhere: signed +0.01 (-0.01) along the outward normal.
    for grow in (0.01, -0.01):
        fit = gfit.curve_fit(profile, slot_points(offset) + grow * outward(slot_points()), tol=1e-12)
        assert math.isclose(fit.max_signed, max(grow, 0), abs_tol=1e-9)
        assert math.isclose(fit.min_signed, min(grow, 0), abs_tol=1e-9)


def outward(p):
    out = np.zeros_like(p)
    out[:12] = (0, -1)
    out[12:24] = (0, 1)
    out[24:33] = (p[24:33] - (20, 0)) / 5
    out[33:] = p[33:] / 5
    return out


def test_points_to_lines_step_takes_back_a_translation():
    nominal = slot_points()[:24]  # the straight sides, plus two points on the ends
    nominal = np.vstack([nominal, [[-5.0, 0.0], [25.0, 0.0]]])
    normals = np.vstack([np.tile((0, -1.0), (12, 1)), np.tile((0, 1.0), (12, 1)), [[-1.0, 0], [1.0, 0]]])
    step = gfit.points_to_lines_step(nominal + (0.02, -0.03), nominal, normals)
    assert np.allclose(step.translation, (-0.02, 0.03), atol=1e-12, rtol=0)
    assert np.allclose(step.matrix, np.eye(2), atol=1e-12, rtol=0)
    with pytest.raises(ValueError, match="points_to_lines_step: .*translation along"):
        gfit.points_to_lines_step(nominal[:24], nominal[:24], normals[:24])


@pytest.mark.skipif(not gfit._core.has_cad, reason="built without gfit::cad")
def test_allowance_equals_cli():
    points = np.loadtxt(DATA / "bracket-displaced.xyz")
    py = gfit.allowance_to_cad(DATA / "bracket.step", points)
    cli = run_cli("allowance", "--cad", DATA / "bracket.step", DATA / "bracket-displaced.xyz")
    assert cli["status"] == 1
    d = py.to_dict()
    for name in ("transform", "allowance", "max_deviation", "invalid", "steps"):
        assert cli[name] == d[name], name
    assert np.nanmin(py.deviation) == py.allowance and np.nanmax(py.deviation) == py.max_deviation


P3, P2 = np.zeros((6, 3)), slot_points()
BAD = [
    (lambda: gfit.rps_fit(P3[:, :2], NOMINAL, LOCKS), "measured"),
    (lambda: gfit.rps_fit(NOMINAL, NOMINAL[:5], LOCKS), "nominal"),
    (lambda: gfit.rps_fit(NOMINAL, NOMINAL, LOCKS * 2), "locks"),
    (lambda: gfit.rps_fit(NOMINAL, NOMINAL, LOCKS, weights=-np.ones(6)), "weights"),
    (lambda: gfit.rps_fit(NOMINAL, NOMINAL, LOCKS, frame=np.zeros((2, 3))), "frame"),
    (lambda: gfit.rps_fit(np.where(NOMINAL > 2000, np.nan, NOMINAL), NOMINAL, LOCKS), "measured"),
    (lambda: gfit.curve_fit([("spline", (0, 0))], P2), "profile"),
    (lambda: gfit.curve_fit([("segment", (0, 0), (0, 0))], P2), "profile"),
    (lambda: gfit.curve_fit(SLOT, P2[:, :1]), "points"),
    (lambda: gfit.curve_fit(SLOT, P2, weights=np.ones(3)), "weights"),
    (lambda: gfit.curve_fit(SLOT, P2[:12]), "curve_fit: .*straight line"),
    (lambda: gfit.points_to_lines_step(P2, P2, np.zeros_like(P2)), "normals"),
    (lambda: gfit.points_to_lines_step(P2, P2[:4], P2), "line_points"),
]


@pytest.mark.parametrize("call, name", BAD)
def test_bad_input_names_the_argument(call, name):
    with pytest.raises(ValueError, match=f"^{name}"):
        call()
