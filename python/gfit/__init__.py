"""gfit: geometric fitting for dimensional inspection, from Python.

Points are numpy arrays of shape (n, 2) or (n, 3); a C-contiguous float64 array is read
in place, anything else real-valued is converted first. Lengths are in the unit of the
coordinates, angles in radians. Each fit returns a small typed result (``Cylinder``,
``Plane``, ...) with named fields, ``to_dict()`` and ``residuals(points)``. A fit that is
refused (too few points, a non-finite coordinate, mismatched companion arrays) or fails
(no convergence) raises ``ValueError`` naming the argument or giving the library's reason.
The fits run in C++ with the interpreter lock released, so a thread pool fitting many
features uses as many cores as it has threads.

    import numpy as np, gfit
    points = np.loadtxt("data/cylinder.xyz")
    cyl = gfit.fit_cylinder(points)
    print(cyl.radius, cyl.direction, cyl.residual)
    deviations = cyl.residuals(points)
"""

from __future__ import annotations

import dataclasses
import math

import numpy as np

from . import _core
from ._results import (AffineMap, Allowance, AxisOfRevolution, CadAlignment, CurveAlignment, LineStep, RPSAlignment, Circle, Cone, Cylinder, Deviations,
                       DirectionCone, Ellipse, ExtremalCircle, Line, MinimumZone, Plane, PlaneStep, Result,
                       RigidMap, Sphere, Torus, Uncertainty)

__all__ = [
    "fit_line", "fit_plane", "fit_circle", "fit_sphere", "fit_cylinder", "fit_cylinders",
    "fit_cone", "fit_cones", "fit_ellipse", "fit_torus", "fit_axis_of_revolution",
    "fit_probed_circle", "fit_probed_sphere", "fit_probed_plane", "fit_probed_cylinder",
    "fit_probed_cone", "fit_probed_torus", "direct_circle", "direct_ellipse", "direct_sphere",
    "min_circumscribed_circle", "max_inscribed_circle", "minmax_circle", "convex_hull",
    "containment_cone", "affine_match", "points_to_points", "points_to_planes_step", "align_to_cad",
    "rps_fit", "curve_fit", "points_to_lines_step", "allowance_to_cad",
    "minimum_zone_plane", "minimum_zone_line", "minimum_zone_sphere", "minimum_zone_cylinder", "uncertainty",
    "read_cad", "deviations", "set_max_threads",
    "set_cone_non_physical_tolerance", "FITS",
    "RPSAlignment", "CurveAlignment", "LineStep", "Allowance",
    "Result", "Line", "Plane", "Circle", "Sphere", "Cylinder", "Cone", "Ellipse", "Torus",
    "AxisOfRevolution", "ExtremalCircle", "DirectionCone", "AffineMap", "Deviations",
    "Uncertainty", "MinimumZone", "RigidMap", "PlaneStep", "CadAlignment",
]

TEN_DEGREES = 10.0 * (math.pi / 180.0)


def _probed(result, radii, n, inside):
    # The fit has accepted the radii (a scalar or one per point); kept for the residuals.
    radii = np.broadcast_to(np.asarray(radii, dtype=float), (n,)).copy()
    return dataclasses.replace(result, probe_radii=radii, inside=bool(inside))


def _rows(points):
    return len(np.asarray(points)) if not isinstance(points, np.ndarray) else points.shape[0]


# ---- least-squares fits ----------------------------------------------------------------

def fit_line(points, plane=None) -> Line:
    """Least-squares line through (n, 2) or (n, 3) points (at least 2).

    With ``plane=(origin, normal)`` the 3-D points are projected into that plane, the line is
    fitted there and mapped back; the residual then includes the points' heights above it.
    Returns Line(point=centroid, direction unit, residual RMS)."""
    if plane is not None:
        origin, normal = plane
        return Line(**_core.fit_line_in_plane(points, origin, normal))
    return Line(**_core.fit_line(points))


def fit_plane(points) -> Plane:
    """Least-squares plane through (n, 3) points (at least 3), closed form.

    Returns Plane(point=centroid, normal unit (sign as the decomposition gives it),
    residual RMS distance)."""
    return Plane(**_core.fit_plane(points))


def fit_circle(points, plane=None) -> Circle:
    """Least-squares (geometric) circle through at least 3 points.

    (n, 2) points: the circle in the plane. (n, 3) points: the circle in space in its own
    plane (``normal`` the plane's; dense inputs are thinned to 10000 points for the fit).
    ``plane=(origin, normal)``: the circle in that given plane. Returns Circle(centre,
    radius, residual RMS, normal)."""
    if plane is not None:
        origin, normal = plane
        return Circle(**_core.fit_circle_in_plane(points, origin, normal))
    return Circle(**_core.fit_circle(points))


def fit_sphere(points) -> Sphere:
    """Least-squares sphere through (n, 3) points (at least 4): Sphere(centre, radius,
    residual RMS)."""
    return Sphere(**_core.fit_sphere(points))


def fit_cylinder(points, normals=None, guess=None, angle=TEN_DEGREES) -> Cylinder:
    """Least-squares cylinder through (n, 3) points (at least 5).

    ``normals`` (n, 3): surface normals, all outward or all inward, that the radial
    directions must agree with within ``angle`` (radians). ``guess`` (3,): an approximate
    axis direction the result must lie within ``angle`` of. Not both. Returns
    Cylinder(point on the axis, unit direction, radius, residual RMS)."""
    return Cylinder(**_core.fit_cylinder(points, normals, guess, angle))


def fit_cylinders(points, tolerance, normals=None, count=2, angle=TEN_DEGREES) -> list:
    """Up to ``count`` distinct cylinders in one point set, each with an RMS below
    ``tolerance`` (length); ``normals`` (n, 3), when given, are preferred axis directions.
    Returns a list of Cylinder (possibly empty)."""
    return [Cylinder(**c) for c in _core.fit_cylinders(points, normals, tolerance, angle, count)]


def fit_cone(points, normals=None, guess=None, angle=TEN_DEGREES) -> Cone:
    """Least-squares cone through (n, 3) points (at least 6).

    ``normals``/``guess``/``angle`` as for fit_cylinder. Returns Cone(apex, unit axis
    pointing towards the apex, half_angle radians, residual RMS)."""
    return Cone(**_core.fit_cone(points, normals, guess, angle))


def fit_cones(points, tolerance, normals=None, count=2, angle=TEN_DEGREES) -> list:
    """Up to ``count`` distinct cones in one point set with an RMS below ``tolerance``."""
    return [Cone(**c) for c in _core.fit_cones(points, normals, tolerance, angle, count)]


def fit_ellipse(points, plane=None, direction=None) -> Ellipse:
    """Geometric least-squares ellipse through at least 4 points.

    (n, 2) points: the ellipse in the plane, ``angle`` of the major axis from the x axis in
    [0, pi). ``plane=(origin, normal)`` with (n, 3) points: the ellipse in that plane, the
    angle measured counter-clockwise about the normal from ``direction`` projected into the
    plane (from the plane frame's x axis when None); ``major_axis`` gives the axis in space.
    Semi-axes ``major`` >= ``minor``; residual RMS."""
    if plane is not None:
        origin, normal = plane
        return Ellipse(**_core.fit_ellipse_in_plane(points, origin, normal, direction))
    return Ellipse(**_core.fit_ellipse(points))


def fit_torus(points, centre=None, axis=None) -> Torus:
    """Least-squares torus through (n, 3) points (at least 7), from the points alone or from
    a guess ``centre`` and ``axis`` (both). Returns Torus(centre, unit axis, r1 ring radius,
    r2 tube radius, residual RMS)."""
    return Torus(**_core.fit_torus(points, centre, axis))


def fit_axis_of_revolution(points, normals) -> AxisOfRevolution:
    """The axis of a surface of revolution from (n, 3) points and their surface normals
    (n, 3), at least 6: the line every normal line meets best. residual: RMS offset."""
    return AxisOfRevolution(**_core.fit_axis_of_revolution(points, normals))


# ---- probe-compensated fits ---------------------------------------------------------------

def fit_probed_circle(points, radii, inside=False) -> Circle:
    """Circle touched by a probe ball: (n, 2) ball centres, ``radii`` one per point or a
    scalar; ``inside`` True when the centres lie inside the circle (a bore). The circle is
    the touched surface."""
    r = _core.fit_probed_circle(points, radii, inside)
    return _probed(Circle(**r), radii, _rows(points), inside)


def fit_probed_sphere(points, radii, inside=False) -> Sphere:
    """Sphere touched by a probe ball: (n, 3) centres, radii, inside as for circles."""
    r = _core.fit_probed_sphere(points, radii, inside)
    return _probed(Sphere(**r), radii, _rows(points), inside)


def fit_probed_plane(points, radii, normals) -> Plane:
    """Plane (or, for (n, 2) points, line) touched by a probe ball. ``normals``: approximate
    surface normals, one per point, from the material towards the ball centre; the returned
    normal agrees with them."""
    r = _core.fit_probed_plane(points, radii, normals)
    return _probed(Plane(**r), radii, _rows(points), False)


def fit_probed_cylinder(points, radii, inside=False, normals=None, guess=None,
                        angle=TEN_DEGREES) -> Cylinder:
    """Cylinder touched by a probe ball: (n, 3) centres, radii, ``inside`` True for a bore;
    ``normals``/``guess``/``angle`` as for fit_cylinder."""
    r = _core.fit_probed_cylinder(points, radii, inside, normals, guess, angle)
    return _probed(Cylinder(**r), radii, _rows(points), inside)


def fit_probed_cone(points, radii, inside=False, contacts=None, normals=None, guess=None,
                    angle=TEN_DEGREES) -> Cone:
    """Cone touched by a probe ball: (n, 3) centres, radii, ``inside`` when the centres lie
    inside; ``contacts`` (n, 3) optional estimated touch points that decide each centre's
    side; ``normals``/``guess``/``angle`` as for fit_cylinder."""
    r = _core.fit_probed_cone(points, radii, inside, contacts, normals, guess, angle)
    return _probed(Cone(**r), radii, _rows(points), inside)


def fit_probed_torus(points, radii, inside=False) -> Torus:
    """Torus touched by a probe ball: (n, 3) centres, radii, ``inside`` when the centres lie
    inside the tube."""
    r = _core.fit_probed_torus(points, radii, inside)
    return _probed(Torus(**r), radii, _rows(points), inside)


# ---- closed-form fits --------------------------------------------------------------------

def direct_circle(points) -> Circle:
    """Closed-form (algebraic) circle of (n, 2) points, or of (n, 3) points in their plane;
    ``residual`` is the fit's chi (RMS radial error)."""
    return Circle(**_core.direct_circle(points))


def direct_ellipse(points) -> Ellipse:
    """Closed-form ellipse (Fitzgibbon, Halir-Flusser) of (n, 2) or (n, 3) points; the
    direct circle below 4 points or where the ellipse fails. ``residual``: chi."""
    return Ellipse(**_core.direct_ellipse(points))


def direct_sphere(points) -> Sphere:
    """Closed-form (algebraic) sphere of (n, 3) points (at least 4); ``residual``: chi."""
    return Sphere(**_core.direct_sphere(points))


# ---- extremal fits -----------------------------------------------------------------------

def min_circumscribed_circle(points, radii=None, outer=False) -> ExtremalCircle:
    """Smallest circle enclosing the (n, 2) points. With probe ``radii``: ``outer`` True
    encloses the balls, False the centres pulled in by their radii."""
    r = _core.min_circumscribed_circle(points, radii, outer)
    return ExtremalCircle(**r, kind="min_circumscribed_circle")


def max_inscribed_circle(points, radii=None, inside=False, start=None) -> ExtremalCircle:
    """Largest empty circle among the (n, 2) points (a bore's inner circle), walked from the
    centroid or from ``start=(centre, radius)``. With ``radii``, compensated distances
    |c - p| - r (``inside`` True: |c - p| + r)."""
    centre, radius = (None, 0.0) if start is None else start
    r = _core.max_inscribed_circle(points, radii, inside, centre, float(radius))
    return ExtremalCircle(**r, kind="max_inscribed_circle")


def minmax_circle(points, radii=None, inside=False) -> ExtremalCircle:
    """Minimum-zone (Chebyshev) circle of a profile: the centre minimising the width of the
    annulus holding the (n, 2) points; ``width`` is the roundness, ``radius`` the middle of
    the zone."""
    r = _core.minmax_circle(points, radii, inside)
    return ExtremalCircle(**r, kind="minmax_circle")


def convex_hull(points, indices=False) -> np.ndarray:
    """Convex hull of (n, 2) points, counter-clockwise from the lowest point: an (m, 2)
    array, or with ``indices=True`` the indices of the hull points."""
    return _core.convex_hull_indices(points) if indices else _core.convex_hull(points)


def containment_cone(directions) -> DirectionCone:
    """Narrowest cone containing the (n, 3) directions (made unit): DirectionCone(axis,
    half_angle radians). Refused when no cone narrower than a hemisphere holds them."""
    return DirectionCone(**_core.containment_cone(directions))


# ---- alignment -----------------------------------------------------------------------------

def affine_match(source, target) -> AffineMap:
    """Least-squares affine map taking the (n, d) ``source`` points onto the corresponding
    ``target`` points (d = 2 or 3, at least d + 1 pairs spanning the space)."""
    return AffineMap(**_core.affine_match(source, target))


def points_to_points(source, target) -> RigidMap:
    """Least-squares rotation and translation taking the (n, 3) ``source`` points onto the
    corresponding (n, 3) ``target`` points (the pairs must not be coincident or collinear).
    A mirrored pair set still gives a proper rotation."""
    return RigidMap(**_core.points_to_points(source, target))


def points_to_planes_step(measured, nominal, normals, lower=None, upper=None, weights=None,
                          translations_only=False, attraction=0.0) -> PlaneStep:
    """One linearised rigid step moving the (n, 3) ``measured`` points onto the tangent
    planes at their ``nominal`` points with (n, 3) ``normals`` (any length, direction used):
    minimises sum (w_i n_i . (m_i' - q_i))^2 to first order in the rotation, under optional
    limits ``lower`` <= n_i . (m_i' - q_i) <= ``upper`` (n values each, +-inf for none) and
    ``weights`` (n values). ``translations_only`` forbids rotations; ``attraction`` >= 0
    pulls the motions the data leave free towards none. Iterate it, re-projecting each
    time, for a full best fit."""
    return PlaneStep(**_core.points_to_planes_step(measured, nominal, normals, lower, upper, weights,
                                                  bool(translations_only), float(attraction)))


def align_to_cad(part, points, tol=1e-6, pairs=None, bands=None, lock_origin=None,
                 lock_rotations=None, scale_passes=0) -> CadAlignment:
    """Best fit of the (n, 3) measured ``points`` (on the part's surface, mm) to the CAD
    ``part`` (from read_cad, or a path), as ``gfit align`` does it.

    ``pairs=(measured, nominal)``: corresponding points for a rough alignment first.
    ``bands`` (n, 2): lower and upper limit of each point's signed deviation.
    ``lock_origin=(measured, nominal)``: hold that measured point on the nominal one.
    ``lock_rotations`` (k, 3), k <= 3: translations only. ``scale_passes`` > 0: estimate x
    and y scale factors too (the scaled alignment; no locks or bands). ``tol``: stop when a
    step moves no point by more than this (mm)."""
    if isinstance(part, (str, bytes)) or hasattr(part, "__fspath__"):
        part = read_cad(part)
    pm, pn = pairs if pairs is not None else (None, None)
    return CadAlignment(**_core.cad_align(part, points, float(tol), pm, pn, bands, lock_origin,
                                          lock_rotations, int(scale_passes)))


def rps_fit(measured, nominal, locks, weights=None, frame=None) -> RPSAlignment:
    """RPS (3-2-1) alignment of reference points: the rigid motion T minimising
    sum_i w_i sum_{k locked} (d_k . (T m_i - q_i))^2 over the (n, 3) ``measured`` points m_i
    and their (n, 3) ``nominal`` points q_i. ``locks`` (n, 3) of 0/1 (or bool): which axes d_k of the
    frame (x, y, z) each record locks. ``weights`` (n,), >= 0 (default 1; 0 leaves the record
    out). ``frame``: None for the world axes, or rows (normal, x direction) as a (2, 3) array
    for every record or an (n, 2, 3) array, one frame per record (the frame's z axis is the
    normal, x is the direction made orthogonal to it, y = z x x). Exactly six independent
    locks are met exactly. Raises ValueError when the locks leave a motion free, naming the
    free translations and rotations (axis direction and a point on it)."""
    if isinstance(locks, np.ndarray) and locks.dtype == np.bool_:
        locks = locks.astype(float)
    return RPSAlignment(**_core.rps_fit(measured, nominal, locks, weights, frame))


def curve_fit(profile, points, weights=None, tol=1e-9) -> CurveAlignment:
    """Least-squares rigid alignment of (n, 2) section ``points`` to a nominal 2-D
    ``profile``: a list of ``("segment", (x0, y0), (x1, y1))`` and
    ``("arc", (cx, cy), radius, start, sweep)`` elements (angles in radians, sweep > 0
    counter-clockwise, |sweep| <= 2 pi). The profile's normal points to the right of each
    element's direction of travel. ``weights`` (n,), >= 0; ``tol``: stop when a step moves no
    point by this much (unit of the coordinates). Motions the profile leaves free (turning
    about a full circle's centre) stay where they were. Raises ValueError for points all on
    one straight line or fewer than three points with a foot on the profile."""
    return CurveAlignment(**_core.curve_fit(profile, points, weights, float(tol)))


def points_to_lines_step(measured, line_points, normals, weights=None, attraction=0.0) -> LineStep:
    """One linearised rigid step in the plane moving the (n, 2) ``measured`` points onto the
    lines through ``line_points`` with (n, 2) ``normals`` (any length, direction used):
    minimises sum (w_i n_i . (m_i' - q_i))^2 to first order in the rotation, the rotation
    taken about the weighted centroid. ``attraction`` >= 0 pulls the motions the lines leave
    free towards none; with 0 a free motion raises ValueError naming it. Iterate it,
    re-projecting each time, for a full best fit."""
    return LineStep(**_core.points_to_lines_step(measured, line_points, normals, weights,
                                                 float(attraction)))


def allowance_to_cad(part, points) -> Allowance:
    """The placement of the (n, 3) ``points`` measured on a blank or casting (mm) over the CAD
    ``part`` (from read_cad, or a path) that maximises the smallest signed deviation along
    the part's outward normal (the largest uniform allowance), as ``gfit allowance`` does it.
    Points beyond a face's edge are left out. Raises ValueError when the part's normals at
    the points lie within a hemisphere (no largest allowance) or fewer than four points
    project."""
    if not _core.has_cad:
        raise ValueError("part: this gfit was built without gfit::cad")
    if isinstance(part, (str, bytes)) or hasattr(part, "__fspath__"):
        part = read_cad(part)
    return Allowance(**_core.cad_allowance(part, points))


# ---- minimum-zone form and uncertainty ----------------------------------------------------------

def _minimum_zone(kind, points) -> MinimumZone:
    z = _core.minimum_zone(kind, points)
    pts = np.asarray(points, dtype=float)
    return MinimumZone(kind=kind, outer_points=pts[z["outer"]], inner_points=pts[z["inner"]], **z)


def minimum_zone_plane(points) -> MinimumZone:
    """Flatness: the two nearest parallel planes holding the (n, 3) points (at least 3, not
    collinear); ``width`` their distance, ``direction`` the unit normal. See MinimumZone."""
    return _minimum_zone("plane", points)


def minimum_zone_line(points) -> MinimumZone:
    """Straightness in space: the thinnest cylinder about a line holding the (n, 3) points
    (at least 2); ``width`` its diameter. See MinimumZone."""
    return _minimum_zone("line", points)


def minimum_zone_sphere(points) -> MinimumZone:
    """Sphericity: the two nearest concentric spheres holding the (n, 3) points (at least 4,
    not coplanar); ``width`` = outer - inner radius. See MinimumZone."""
    return _minimum_zone("sphere", points)


def minimum_zone_cylinder(points) -> MinimumZone:
    """Cylindricity: the two nearest coaxial cylinders holding the (n, 3) points (at least 5);
    ``width`` = outer - inner radius. See MinimumZone."""
    return _minimum_zone("cylinder", points)


def uncertainty(result, points) -> Uncertainty:
    """Standard uncertainties of a least-squares ``result`` (line, plane, circle, sphere,
    cylinder, cone, torus, ellipse in the plane) from the ``points`` it was fitted to: the
    same as ``result.uncertainty(points)``. See Uncertainty."""
    return result.uncertainty(points)


# ---- CAD ---------------------------------------------------------------------------------

def read_cad(path):
    """Reads a CAD part (STEP, IGES or BREP; lengths in mm). Raises ValueError when the file
    cannot be read."""
    if not _core.has_cad:
        raise ValueError("path: this gfit was built without gfit::cad")
    return _core.read_cad(str(path))


def deviations(part, points, radius=0.0) -> Deviations:
    """Deviation of each (n, 3) point from the CAD ``part`` (from read_cad, or a path),
    along the part's outward normal at the point's foot (positive outside the material).
    ``radius``: probe ball radius when the points are ball centres (0: surface points)."""
    if isinstance(part, (str, bytes)) or hasattr(part, "__fspath__"):
        part = read_cad(part)
    return Deviations(**_core.cad_deviations(part, points, float(radius)))


# ---- settings ----------------------------------------------------------------------------

def set_max_threads(n: int) -> int:
    """Caps the threads one search may start (0: the hardware's); returns the previous
    setting. Results do not depend on it."""
    return _core.set_max_threads(int(n))


def set_cone_non_physical_tolerance(tolerance: float) -> float:
    """Sets the cone fits' process-wide non-physical tolerance (radians, 0.05 at load);
    returns the previous one. Set it before fitting on other threads."""
    return _core.set_cone_non_physical_tolerance(float(tolerance))


# The fits by element name, for tables and the batch runner. A new fit (an alignment, the
# minimum-zone elements) joins by one entry here and its function above.
FITS = {
    "line": fit_line, "plane": fit_plane, "circle": fit_circle, "sphere": fit_sphere,
    "cylinder": fit_cylinder, "cone": fit_cone, "ellipse": fit_ellipse, "torus": fit_torus,
    "axis_of_revolution": fit_axis_of_revolution,
    "probed_circle": fit_probed_circle, "probed_sphere": fit_probed_sphere,
    "probed_plane": fit_probed_plane, "probed_cylinder": fit_probed_cylinder,
    "probed_cone": fit_probed_cone, "probed_torus": fit_probed_torus,
    "direct_circle": direct_circle, "direct_ellipse": direct_ellipse,
    "direct_sphere": direct_sphere,
    "min_circumscribed_circle": min_circumscribed_circle,
    "max_inscribed_circle": max_inscribed_circle, "minmax_circle": minmax_circle,
    "containment_cone": containment_cone,
    "minimum_zone_plane": minimum_zone_plane, "minimum_zone_line": minimum_zone_line,
    "minimum_zone_sphere": minimum_zone_sphere, "minimum_zone_cylinder": minimum_zone_cylinder,
}
