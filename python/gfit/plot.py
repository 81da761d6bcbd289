"""Plots of fitted elements (matplotlib, imported only with this module).

Each function returns a matplotlib Figure and, given ``path``, also writes it (PNG or SVG by
the extension; PNG at ``dpi`` dots per inch). The figures are drawn on the Agg canvas directly, without pyplot, so they
render without a display and leave the caller's pyplot backend alone; in Jupyter a returned
Figure shows inline.

- ``roundness(points)``: the polar profile of a section with its least-squares and
  minimum-zone circles and the form error (the zone's width).
- ``form_map(result, points)``: the deviations of the points from a fitted cylinder, cone or
  plane as a colour map over the unrolled surface.
- ``deviation_map(deviations, points)``: points measured on a CAD part in 3-D, coloured by
  their deviation, with a colour bar in mm and the tolerance band.
"""

from __future__ import annotations

import numpy as np

try:
    from matplotlib.backends.backend_agg import FigureCanvasAgg
    from matplotlib.colors import TwoSlopeNorm
    from matplotlib.figure import Figure
except ImportError as e:  # pragma: no cover - depends on the installation
    raise ImportError("gfit.plot needs matplotlib (Debian: python3-matplotlib)") from e

from . import fit_circle, minmax_circle
from ._results import Cone, Cylinder, Deviations, Plane


def _figure(size=(6.0, 5.0)):
    fig = Figure(figsize=size, dpi=100, layout="constrained")
    FigureCanvasAgg(fig)
    return fig


def _save(fig, path, dpi=100):
    if path is not None:
        fig.savefig(path, dpi=dpi)
    return fig


def _micrometres(values):
    return np.asarray(values) * 1000.0


def roundness(points, path=None, title="Roundness", dpi=100):
    """Polar roundness plot of an (n, 2) profile in mm.

    Drawn about the minimum-zone centre: the profile's radial deviation from the zone's
    middle radius (in µm, magnified, so the zone's circles are the two dashed rings), and
    the least-squares circle as seen from that centre. The title gives the form error (the
    zone's width) and the least-squares RMS. Returns the Figure."""
    points = np.asarray(points, dtype=float)
    zone = minmax_circle(points)
    ls = fit_circle(points)
    v = points - zone.centre
    angle = np.arctan2(v[:, 1], v[:, 0])
    order = np.argsort(angle)
    dev = _micrometres(np.hypot(v[:, 0], v[:, 1]) - zone.radius)
    half = _micrometres(zone.width) / 2.0
    # The least-squares circle in the same polar frame: its distance from the zone's centre
    # along each direction, relative to the zone's middle radius.
    t = np.linspace(-np.pi, np.pi, 721)
    c = ls.centre - zone.centre
    along = c[0] * np.cos(t) + c[1] * np.sin(t)
    ls_r = along + np.sqrt(np.maximum(ls.radius ** 2 - (c[0] * np.sin(t) - c[1] * np.cos(t)) ** 2, 0.0))
    ls_dev = _micrometres(ls_r - zone.radius)

    span = max(half, float(np.max(np.abs(dev))), 1e-3)
    fig = _figure()
    ax = fig.add_subplot(projection="polar")
    ax.set_rorigin(-3.0 * span)  # a hole in the middle keeps the magnified profile round
    ax.set_ylim(-1.5 * span, 1.5 * span)
    closed = np.r_[order, order[:1]]
    ax.plot(angle[closed], dev[closed], color="black", lw=1.2, marker=".", ms=3, label="profile")
    ax.plot(t, ls_dev, color="tab:blue", lw=1.0, label="least-squares circle")
    for r, label in ((half, "minimum zone"), (-half, None)):
        ax.plot(t, np.full_like(t, r), color="tab:red", ls="--", lw=1.0, label=label)
    ax.set_rlabel_position(90)
    ax.tick_params(axis="y", labelsize=7)
    ax.set_title(f"{title}: form error {_micrometres(zone.width):.2f} µm (minimum zone)\n"
                 f"least squares: radius {ls.radius:.4f} mm, RMS {_micrometres(ls.residual):.2f} µm",
                 fontsize=9)
    ax.legend(loc="lower left", bbox_to_anchor=(-0.12, -0.14), fontsize=7, frameon=False)
    fig.text(0.99, 0.01, "radial deviation from the zone's middle circle, µm", ha="right", fontsize=7)
    return _save(fig, path, dpi)


def _unrolled(result, points):
    """Surface coordinates of the points: (around, along) for cylinders and cones (degrees,
    mm), in-plane (u, v) for planes, with axis labels."""
    if isinstance(result, Plane):
        n = result.normal
        helper = np.array([1.0, 0, 0]) if abs(n[0]) < 0.9 else np.array([0, 1.0, 0])
        e1 = np.cross(n, helper)
        e1 /= np.linalg.norm(e1)
        e2 = np.cross(n, e1)
        v = points - result.point
        return v @ e1, v @ e2, "u (mm, in the plane)", "v (mm, in the plane)"
    if isinstance(result, Cylinder):
        origin, axis = result.point, result.direction
    elif isinstance(result, Cone):
        origin, axis = result.apex, -result.axis  # along the axis from the apex to the opening
    else:
        raise ValueError("result: a form map needs a fitted cylinder, cone or plane")
    helper = np.array([1.0, 0, 0]) if abs(axis[0]) < 0.9 else np.array([0, 1.0, 0])
    e1 = np.cross(axis, helper)
    e1 /= np.linalg.norm(e1)
    e2 = np.cross(axis, e1)
    v = points - origin
    around = np.degrees(np.arctan2(v @ e2, v @ e1))
    return around, v @ axis, "angle around the axis (degrees)", "position along the axis (mm)"


def form_map(result, points, path=None, title=None, dpi=100):
    """Form map of a fitted cylinder, cone or plane: each point at its place on the
    unrolled surface, coloured by its signed deviation from the element (µm, positive
    outside; red outside, blue inside). Returns the Figure."""
    points = np.asarray(points, dtype=float)
    x, y, xlabel, ylabel = _unrolled(result, points)
    dev = _micrometres(result.residuals(points))
    limit = max(float(np.max(np.abs(dev))), 1e-6)
    fig = _figure((7.0, 4.5))
    ax = fig.add_subplot()
    if len(points) >= 3 and np.ptp(x) > 0 and np.ptp(y) > 0:
        try:
            art = ax.tripcolor(x, y, dev, shading="gouraud", cmap="coolwarm",
                               norm=TwoSlopeNorm(0.0, -limit, limit))
        except (ValueError, RuntimeError):  # no triangulation (points on a line)
            art = None
    else:
        art = None
    dots = ax.scatter(x, y, c=dev, cmap="coolwarm", norm=TwoSlopeNorm(0.0, -limit, limit), s=12,
                      edgecolors="black", linewidths=0.2)
    bar = fig.colorbar(art or dots, ax=ax)
    bar.set_label("deviation (µm)")
    ax.set_xlabel(xlabel)
    ax.set_ylabel(ylabel)
    name = type(result).__name__.lower()
    ax.set_title(title or f"Form map of the {name}: RMS {_micrometres(result.residual):.2f} µm, "
                          f"range {np.ptp(dev):.2f} µm", fontsize=9)
    return _save(fig, path, dpi)


def deviation_map(deviations, points, path=None, tolerance=None, title="Deviations from the CAD part",
                  dpi=100):
    """3-D scatter of the (n, 3) points coloured by their deviation from a CAD part
    (``gfit.deviations``), in mm. ``tolerance`` (mm): the colour scale spans the band
    ±tolerance, points beyond it take the end colours and are outlined, and the band is
    marked on the colour bar; without it the scale spans the largest deviation. Points
    without a foot point are drawn grey. Returns the Figure."""
    if not isinstance(deviations, Deviations):
        raise ValueError("deviations: expected the result of gfit.deviations")
    points = np.asarray(points, dtype=float)
    ok = deviations.valid
    dev = deviations.deviation
    limit = float(tolerance) if tolerance else max(float(np.nanmax(np.abs(dev[ok]))) if ok.any() else 1.0, 1e-9)
    fig = _figure((7.0, 5.5))
    ax = fig.add_subplot(projection="3d")
    norm = TwoSlopeNorm(0.0, -limit, limit)
    outside = ok & (np.abs(dev) > limit) if tolerance else np.zeros_like(ok)
    art = ax.scatter(*points[ok].T, c=np.clip(dev[ok], -limit, limit), cmap="coolwarm", norm=norm, s=10,
                     edgecolors=np.where(outside[ok], "black", "none"), linewidths=0.6, depthshade=False)
    if (~ok).any():
        ax.scatter(*points[~ok].T, color="0.6", s=10, marker="x", label="no foot point")
        ax.legend(loc="upper left", fontsize=7, frameon=False)
    bar = fig.colorbar(art, ax=ax, shrink=0.7, pad=0.12, extend="both" if tolerance else "neither")
    bar.set_label("deviation (mm)")
    if tolerance:
        for y in (-limit, limit):
            bar.ax.axhline(y, color="black", lw=1.0)
        bar.ax.set_title(f"±{limit:g}", fontsize=7)
    ax.set_xlabel("x (mm)")
    ax.set_ylabel("y (mm)")
    ax.set_zlabel("z (mm)")
    summary = f"RMS {deviations.rms:.4f} mm, range [{deviations.min:.4f}, {deviations.max:.4f}] mm"
    if tolerance:
        summary += f", {int(np.count_nonzero(outside))} outside ±{limit:g} mm"
    ax.set_title(f"{title}\n{summary}", fontsize=9)
    return _save(fig, path, dpi)
