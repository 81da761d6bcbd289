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
