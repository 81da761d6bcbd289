"""Typed results of the gfit fits.

Every result is a frozen dataclass: its fields are numpy arrays (points, unit directions)
and floats, in the unit of the input coordinates; angles are in radians. ``to_dict()``
gives plain Python values (lists and floats) for JSON and tables. Where the element has a
distance, ``residuals(points)`` gives each point's signed distance from it, with the same
definition the fit minimised, so that ``sqrt(mean(residuals**2))`` is the fit's RMS
``residual``.
"""

from __future__ import annotations

import dataclasses
from dataclasses import dataclass, field
from typing import ClassVar, Optional

import numpy as np

from . import _core


def _plain(value):
    if isinstance(value, np.ndarray):
        return value.tolist()
    if isinstance(value, (np.floating, np.integer, np.bool_)):
        return value.item()
    return value


@dataclass(frozen=True)
class Result:
    """Base of the results: ``to_dict()`` and the element name."""

    element: ClassVar[str] = ""

    def to_dict(self) -> dict:
        """The fields as plain Python values, with the element's name under ``"element"``."""
        out = {"element": self.element}
        for f in dataclasses.fields(self):
            if f.repr:
                out[f.name] = _plain(getattr(self, f.name))
        return out

    def _fields(self) -> dict:
        return {f.name: getattr(self, f.name) for f in dataclasses.fields(self)
                if getattr(self, f.name) is not None and f.repr}


@dataclass(frozen=True)
class _Element(Result):
    """An element with a distance: residuals and distribution quality."""

    # Probe-compensated fits keep the ball radii and side of their fit, so that the
    # residuals are those of the touched surface; plain fits leave them unset.
    probe_radii: Optional[np.ndarray] = field(default=None, repr=False, compare=False, kw_only=True)
    inside: Optional[bool] = field(default=None, repr=False, compare=False, kw_only=True)

    @property
    def _kind(self) -> str:
        return ("probed_" if self.probe_radii is not None else "") + self.element

    def residuals(self, points, normals=None) -> np.ndarray:
        """Signed distance of each point from the element (see the element's class for the
        sign), in the unit of the coordinates. For probe-compensated results the points are
        the ball centres of the fit and the distances are from the touched surface, each
        ball radius taken off. Raises ValueError for points of the wrong shape or not finite.
        """
        radii = self.probe_radii
        if radii is not None and len(radii) != len(np.asarray(points)):
            raise ValueError("points: the probe radii of this fit belong to %d points, got %d"
                             % (len(radii), len(np.asarray(points))))
        return _core.residuals(self._kind, self._fields(), points, radii, bool(self.inside),
                               normals)

    def distribution_quality(self, points, contacts=None) -> float:
        """How well `points` determine this element: larger is better, about 1 for well
        spread points, 0 when some combination of the parameters is left free (see
        gfLeastSquareDistributionQuality). Dimensionless."""
        return _core.distribution_quality(self._kind, self._fields(), points, self.probe_radii,
                                          bool(self.inside), contacts)


@dataclass(frozen=True)
class Line(_Element):
    """A line: ``point`` on it (the centroid of the points) and unit ``direction`` (sign as
    the decomposition gives it). Residuals: in the plane signed, positive to the left of
    the direction; in space the unsigned distance from the line. ``residual``: RMS."""

    element: ClassVar[str] = "line"
    point: np.ndarray
    direction: np.ndarray
    residual: float


@dataclass(frozen=True)
class Plane(_Element):
    """A plane (in 2-D: a line given by its normal): ``point`` on it (the centroid of the
    points), unit ``normal``. Residuals signed, positive on the side the normal points to.
    Probe-compensated planes: the normal points from the material to the ball centres."""

    element: ClassVar[str] = "plane"
    point: np.ndarray
    normal: np.ndarray
    residual: float


@dataclass(frozen=True)
class Circle(_Element):
    """A circle: ``centre``, ``radius`` (not the diameter); in space also the unit
    ``normal`` of its plane. Residuals: in the plane |p - centre| - radius (positive
    outside); in space the radial error and the height above the circle's plane together,
    signed as the radial error. ``residual``: RMS (closed-form fits: their chi)."""

    element: ClassVar[str] = "circle"
    centre: np.ndarray
    radius: float
    residual: float
    normal: Optional[np.ndarray] = None


@dataclass(frozen=True)
class Sphere(_Element):
    """A sphere: ``centre`` and ``radius``; residuals |p - centre| - radius (positive
    outside)."""

    element: ClassVar[str] = "sphere"
    centre: np.ndarray
    radius: float
    residual: float


@dataclass(frozen=True)
class Cylinder(_Element):
    """A cylinder: axis ``point`` (the foot of the perpendicular from the origin), unit
    axis ``direction`` (either way along the axis), ``radius``. Residuals: distance from
    the axis minus the radius (positive outside)."""

    element: ClassVar[str] = "cylinder"
    point: np.ndarray
    direction: np.ndarray
    radius: float
    residual: float


@dataclass(frozen=True)
class Cone(_Element):
    """A cone: ``apex``, unit ``axis`` pointing from the opening towards the apex,
    ``half_angle`` in radians (0, pi/2). Residuals: signed distance from the surface,
    positive outside."""

    element: ClassVar[str] = "cone"
    apex: np.ndarray
    axis: np.ndarray
    half_angle: float
    residual: float


@dataclass(frozen=True)
class Ellipse(_Element):
    """An ellipse: ``centre``, semi-axes ``major`` >= ``minor`` (not diameters), ``angle``
    of the major axis in radians. In the plane the angle is from the x axis, in [0, pi);
    in a given plane it is measured counter-clockwise about ``normal`` from the reference
    direction, and ``major_axis`` is the major axis as a unit vector in space. Residuals:
    the signed orthogonal distance from the curve (positive outside), in space combined with
    the height above the plane. ``residual``: RMS (closed-form fits: their chi, measured
    along the ray from the centre)."""

    element: ClassVar[str] = "ellipse"
    centre: np.ndarray
    major: float
    minor: float
    residual: float
    angle: Optional[float] = None
    normal: Optional[np.ndarray] = None
    major_axis: Optional[np.ndarray] = None


@dataclass(frozen=True)
class Torus(_Element):
    """A torus: ``centre`` (of the spine circle), unit ``axis``, ring radius ``r1`` (axis to
    the tube's spine circle) and tube radius ``r2``. Residuals: distance from the spine
    circle minus r2 (positive outside the tube)."""

    element: ClassVar[str] = "torus"
    centre: np.ndarray
    axis: np.ndarray
    r1: float
    r2: float
    residual: float


@dataclass(frozen=True)
class AxisOfRevolution(_Element):
    """The axis of a surface of revolution: ``point`` and unit ``direction``. Its residuals
    need the normals of the fit: ``residuals(points, normals)`` gives the signed offset of
    each point's normal line from the axis."""

    element: ClassVar[str] = "axis"
    point: np.ndarray
    direction: np.ndarray
    residual: float


@dataclass(frozen=True)
class ExtremalCircle(_Element):
    """A circle bounding a profile: ``centre`` and ``radius``; for the min-max (minimum
    zone) circle also the zone ``width`` (the roundness), the radius lying midway in it.
    Residuals: |p - centre| - radius of the given points (no probe compensation)."""

    element: ClassVar[str] = "circle"
    centre: np.ndarray
    radius: float
    width: Optional[float] = None
    kind: str = ""

    def to_dict(self) -> dict:
        out = super().to_dict()
        out["element"] = self.kind
        del out["kind"]
        return out

    def residuals(self, points, normals=None) -> np.ndarray:
        return _core.residuals("circle", {"centre": self.centre, "radius": self.radius}, points)


@dataclass(frozen=True)
class DirectionCone(Result):
    """The narrowest cone holding a set of unit directions: unit ``axis`` and
    ``half_angle`` in radians."""

    element: ClassVar[str] = "containment_cone"
    axis: np.ndarray
    half_angle: float


@dataclass(frozen=True)
class AffineMap(Result):
    """x' = matrix @ x + translation, the least-squares affine map taking the sources onto
    the targets; ``rms`` of the misfit, in the unit of the coordinates."""

    element: ClassVar[str] = "affine"
    matrix: np.ndarray
    translation: np.ndarray
    rms: float

    def apply(self, points) -> np.ndarray:
        """The mapped points, an (n, d) array."""
        return np.asarray(points, dtype=float) @ self.matrix.T + self.translation


@dataclass(frozen=True)
class Deviations(Result):
    """Deviations of measured points from a CAD part, one row per point: the ``nominal``
    point on the part (for a probe radius r > 0, where the ball centre would be), the
    part's outward unit ``normal`` there, the signed ``deviation`` along it in mm (positive
    outside the material) and ``valid`` (False where no foot point sees the point; those
    rows hold NaN). ``count``, ``invalid``, ``min``, ``max``, ``rms`` summarise the valid
    rows (NaN when there are none)."""

    element: ClassVar[str] = "deviations"
    nominal: np.ndarray = field(repr=False)
    normal: np.ndarray = field(repr=False)
    deviation: np.ndarray = field(repr=False)
    valid: np.ndarray = field(repr=False)
    count: int
    invalid: int
    min: float
    max: float
    rms: float


@dataclass(frozen=True)
class Uncertainty(Result):
    """Standard uncertainties (one standard deviation) of a least-squares element, from the
    points' own scatter: covariance s^2 (J^T J)^-1 at the solution, s^2 = sum of squared
    distances / ``degrees_of_freedom``, with the gauge freedoms (an axis point sliding along
    its axis, the length of a direction) removed. Lengths in the unit of the coordinates,
    angles in radians.

    ``sigma``: s. ``position``: of the centre, axis point or plane point along x, y, z, taken
    at ``axis_point`` (the foot of the points' centroid on the axis or plane; the centre for
    circles, spheres, tori). ``radius`` and ``diameter`` (circle, sphere, cylinder, torus r1,
    ellipse semi-axis a; the cone's radius at ``axis_point``), ``second_radius`` (torus r2,
    ellipse semi-axis b), ``axis_angle`` (angle between the fitted and the true axis or
    normal; ellipse: its angle), ``half_angle`` (cone), ``offset`` (plane and line in the
    plane, along the normal). ``independent``: covariance of the independent quantities;
    ``parameters``: the same on the element's parameter vector (singular along the gauge
    directions). Figures that do not apply to the element are 0."""

    element: ClassVar[str] = "uncertainty"
    sigma: float
    degrees_of_freedom: int
    position: np.ndarray
    radius: float
    diameter: float
    second_radius: float
    axis_angle: float
    half_angle: float
    offset: float
    axis_point: np.ndarray
    independent: np.ndarray = field(repr=False)
    parameters: np.ndarray = field(repr=False)


def _uncertainty(self, points) -> Uncertainty:
    """The standard uncertainties of this least-squares element from the points it was
    fitted to (see Uncertainty). Raises ValueError for probe-compensated and extremal
    results, which have none, and for points that do not determine the element."""
    if self.probe_radii is not None:
        raise ValueError("kind: no uncertainty for a probe-compensated %s" % self.element)
    return Uncertainty(**_core.uncertainty(self.element, self._fields(), points))


_Element.uncertainty = _uncertainty


@dataclass(frozen=True)
class MinimumZone(Result):
    """The minimum zone of the points (the form error as a drawing's tolerance defines it),
    searched from the least-squares element:

    - plane: two parallel planes; ``point`` on the mid plane, unit ``normal``;
    - line: a cylinder about a line; ``point``, unit ``direction``, ``radius`` of the zone;
    - sphere: two concentric spheres; ``point`` the centre, ``radius`` the mid radius;
    - cylinder: two coaxial cylinders; ``point``, unit ``direction``, mid ``radius``.

    ``width``: the zone's width (outer minus inner; the line's zone diameter), never more
    than ``least_squares_width``, the same measure about the least-squares element
    (``least_squares_point``, ``least_squares_direction``, ``least_squares_radius``).
    ``outer`` and ``inner``: indices of the contact points on the two surfaces (for the
    plane the outer side is the one the normal points to), ``outer_points`` and
    ``inner_points`` the points themselves. ``certified``: the contacts prove the zone
    minimal (``certificate``, in units of the points' extent, below 1e-7); otherwise
    ``status`` says why the search stopped (2 no proof, 3 step cap). The sphere and cylinder
    zones are the local minimum nearest the least-squares element."""

    element: ClassVar[str] = "minimum_zone"
    kind: str
    width: float
    point: np.ndarray
    direction: Optional[np.ndarray]
    radius: float
    least_squares_width: float
    least_squares_point: np.ndarray
    least_squares_direction: Optional[np.ndarray]
    least_squares_radius: float
    outer: np.ndarray
    inner: np.ndarray
    outer_points: np.ndarray = field(repr=False)
    inner_points: np.ndarray = field(repr=False)
    certified: bool
    certificate: float
    status: int
    iterations: int


@dataclass(frozen=True)
class RigidMap(Result):
    """x' = matrix @ x + translation, a rotation (``matrix`` orthogonal, determinant +1) and a
    translation taking the source points onto the targets; ``rms`` of |x' - target| over the
    pairs, in the unit of the coordinates."""

    element: ClassVar[str] = "rigid"
    matrix: np.ndarray
    translation: np.ndarray
    rms: float = float("nan")

    def apply(self, points) -> np.ndarray:
        """The mapped points, an (n, d) array."""
        return np.asarray(points, dtype=float) @ self.matrix.T + self.translation


@dataclass(frozen=True)
class PlaneStep(RigidMap):
    """One linearised rigid step bringing measured points onto the tangent planes at their
    nominal points (``apply`` moves the measured points); ``contradictory_limits``: the
    numbers of the tolerance limits left out because they contradict each other (each
    finite limit numbered in point order, lower before upper)."""

    element: ClassVar[str] = "points_to_planes_step"
    contradictory_limits: np.ndarray = field(default_factory=lambda: np.zeros(0, dtype=np.int32))


@dataclass(frozen=True)
class CadAlignment(Result):
    """The best fit of measured points to a CAD part: ``transform`` (4 x 4) takes the points
    onto the part; ``deviation`` of each point after it, signed along the part's outward
    normal in mm (NaN where no face sees the point); ``rms``, ``min``, ``max``, ``invalid``
    over the points; ``status`` 1 aligned, 0 stopped early (the transform reached so far);
    ``steps`` taken; ``scale_x``, ``scale_y`` (1 unless scale passes were asked for);
    ``contradictory_limits`` as for PlaneStep."""

    element: ClassVar[str] = "cad_alignment"
    transform: np.ndarray
    deviation: np.ndarray = field(repr=False)
    rms: float
    min: float
    max: float
    invalid: int
    status: int
    steps: int
    scale_x: float
    scale_y: float
    contradictory_limits: np.ndarray

    def apply(self, points) -> np.ndarray:
        """The points moved by the transform, an (n, 3) array."""
        return np.asarray(points, dtype=float) @ self.transform[:3, :3].T + self.transform[:3, 3]


@dataclass(frozen=True)
class RPSAlignment(Result):
    """The RPS (3-2-1) alignment: ``transform`` (4 x 4, homogeneous) takes the measured
    points onto the nominal ones; ``rms`` = sqrt(sum w r^2 / sum w) and ``max_deviation`` the
    largest |r| over the locked deviations r = d_k . (T m - q) after it, in the unit of the
    coordinates."""

    element: ClassVar[str] = "rps"
    transform: np.ndarray
    rms: float
    max_deviation: float

    def apply(self, points) -> np.ndarray:
        """The points moved by the transform, an (n, 3) array."""
        return np.asarray(points, dtype=float) @ self.transform[:3, :3].T + self.transform[:3, 3]


@dataclass(frozen=True)
class CurveAlignment(Result):
    """The least-squares alignment of section points to a nominal 2-D profile: ``transform``
    (3 x 3, homogeneous, rigid) takes the measured points onto the profile. Over the points
    that project after it: ``max_distance`` (>= 0), ``max_signed`` and ``min_signed`` (signed
    along the profile's normal, which points to the right of each element's direction of
    travel: outward for a counter-clockwise closed profile; each is 0 when no deviation of
    that sign exists), in the unit of the coordinates; ``invalid`` points without a foot;
    ``steps`` taken."""

    element: ClassVar[str] = "curve_alignment"
    transform: np.ndarray
    max_distance: float
    max_signed: float
    min_signed: float
    invalid: int
    steps: int

    def apply(self, points) -> np.ndarray:
        """The points moved by the transform, an (n, 2) array."""
        return np.asarray(points, dtype=float) @ self.transform[:2, :2].T + self.transform[:2, 2]


@dataclass(frozen=True)
class LineStep(RigidMap):
    """One linearised rigid step in the plane bringing measured points onto their nominal
    lines (``apply`` moves the measured points)."""

    element: ClassVar[str] = "points_to_lines_step"


@dataclass(frozen=True)
class Allowance(Result):
    """The placement of a blank or casting over the CAD part with the largest uniform
    allowance: ``transform`` (4 x 4) takes the measured points over the part; ``allowance``
    the smallest and ``max_deviation`` the largest signed deviation after it, along the
    part's outward normal in mm (positive: material outside the finished part);
    ``deviation`` of each point (NaN where left out or without a foot); ``invalid`` points
    left out (beyond a face's edge) or without a foot; ``steps``: programmes solved."""

    element: ClassVar[str] = "allowance"
    transform: np.ndarray
    allowance: float
    max_deviation: float
    deviation: np.ndarray = field(repr=False)
    invalid: int
    steps: int

    def apply(self, points) -> np.ndarray:
        """The points moved by the transform, an (n, 3) array."""
        return np.asarray(points, dtype=float) @ self.transform[:3, :3].T + self.transform[:3, 3]
