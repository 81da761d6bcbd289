"""Bad input raises ValueError naming the argument (or giving the library's reason); nothing
crashes the interpreter, and a refusal leaves no stale reason behind."""
import numpy as np
import pytest

import gfit

rng = np.random.default_rng(3)
P3 = rng.normal(size=(40, 3))
P2 = rng.normal(size=(40, 2))


def nan_at(points, row):
    p = points.copy()
    p[row, -1] = np.nan
    return p


BAD = [
    # call, the argument the message must name (or the reason it must give)
    (lambda: gfit.fit_plane(P2), "points: expected shape (n, 3)"),
    (lambda: gfit.fit_plane(P3.astype(complex)), "points: expected real numbers"),
    (lambda: gfit.fit_plane(np.array([["a", "b", "c"]] * 5)), "points: expected real numbers"),
    (lambda: gfit.fit_plane(np.zeros((0, 3))), "points: the array is empty"),
    (lambda: gfit.fit_plane(P3[:2]), "points: at least 3 rows"),
    (lambda: gfit.fit_plane(P3.ravel()), "points: expected shape"),
    (lambda: gfit.fit_plane(None), "points: an array is required"),
    (lambda: gfit.fit_plane(nan_at(P3, 7)), "points: row 7 is not finite"),
    (lambda: gfit.fit_cylinder(nan_at(P3, 3)), "points: row 3 is not finite"),
    (lambda: gfit.fit_circle(nan_at(P2, 0)), "points: row 0 is not finite"),
    (lambda: gfit.minmax_circle(nan_at(P2, 5)), "points: row 5 is not finite"),
    (lambda: gfit.convex_hull(nan_at(P2, 9)), "points: row 9 is not finite"),
    (lambda: gfit.direct_sphere(nan_at(P3, 2)), "points: row 2 is not finite"),
    (lambda: gfit.fit_sphere(np.inf * P3), "points: row 0 is not finite"),
    (lambda: gfit.fit_cylinder(P3, normals=P3[:10]), "normals: one normal per point is needed: 10 normals for 40"),
    (lambda: gfit.fit_cylinder(P3, normals=np.zeros((40, 3))), "normals: row 0 is zero"),
    (lambda: gfit.fit_cylinder(P3, normals=P3, guess=[0, 0, 1]), "guess: give normals or a guess axis"),
    (lambda: gfit.fit_cylinder(P3, guess=[0, 0, 0]), "guess: a direction must not be zero"),
    (lambda: gfit.fit_cylinder(P3, angle=float("nan")), "angle:"),
    (lambda: gfit.fit_probed_sphere(P3, np.ones(39)), "radii: one radius per point is needed: 39 radii for 40"),
    (lambda: gfit.fit_probed_sphere(P3, -1.0), "radii: a probe radius must be finite and non-negative"),
    (lambda: gfit.fit_probed_circle(P2, np.r_[np.ones(39), np.nan]), "radii: radius 39"),
    (lambda: gfit.fit_probed_plane(P3, 1.0, None), "normals: approximate normals"),
    (lambda: gfit.fit_probed_cone(P3, 1.0, contacts=P3[:5]), "contacts: one contact estimate per point"),
    (lambda: gfit.minmax_circle(P2, radii=np.ones(3)), "radii: one radius per point"),
    (lambda: gfit.fit_torus(P3, centre=[0, 0, 0]), "axis: a guess needs both"),
    (lambda: gfit.fit_circle(P3, plane=([0, 0], [0, 0, 1])), "origin: expected 3 numbers"),
    (lambda: gfit.affine_match(P3, P3[:20]), "target: one target per source point"),
    (lambda: gfit.containment_cone(np.zeros((3, 3))), "directions: row 0 is zero"),
    (lambda: gfit.fit_plane(P3).residuals(P2), "points: this plane needs 3-D points"),
    (lambda: gfit.fit_probed_sphere(P3, 1.0).residuals(P3[:5]), "points: the probe radii of this fit"),
    (lambda: gfit.deviations(__file__, P3), "path:"),
    # Refusals of the library itself, with its reason.
    (lambda: gfit.minmax_circle(np.column_stack([np.arange(10.0), np.arange(10.0)])), "minmax_circle: "),
    (lambda: gfit.containment_cone([[0, 0, 1], [0, 0, -1]]), "containment_cone: "),
    (lambda: gfit.affine_match(P3[:, :2] @ np.ones((2, 3)), P3), "affine_match: "),
    (lambda: gfit.direct_circle(P2[:1]), "points: at least 2 rows"),
]


@pytest.mark.parametrize("call,message", BAD, ids=[m for _, m in BAD])
def test_value_error_names_the_argument(call, message):
    with pytest.raises(ValueError) as e:
        call()
    assert message in str(e.value)


def test_library_reason_is_read_fresh():
    # A refusal followed by a fit that succeeds and one that fails for another reason: each
    # error carries its own reason, never the previous call's.
    with pytest.raises(ValueError) as first:
        gfit.minmax_circle(np.column_stack([np.arange(10.0), 2 * np.arange(10.0)]))
    gfit.fit_plane(P3)
    with pytest.raises(ValueError) as second:
        gfit.containment_cone([[0, 0, 1], [0, 0, -1]])
    assert str(first.value).split(": ", 1)[1] != str(second.value).split(": ", 1)[1]


def test_other_layouts_and_dtypes_are_converted():
    base = gfit.fit_plane(P3)
    for variant in (np.asfortranarray(P3), P3.tolist(),
                    np.concatenate([P3, P3], axis=1)[:, :3]):
        r = gfit.fit_plane(variant)
        assert r.to_dict() == base.to_dict()
    ints = gfit.fit_plane(np.round(P3 * 1000).astype(np.int64))
    assert ints.residual > 0
