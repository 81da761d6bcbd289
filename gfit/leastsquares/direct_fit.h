// Closed-form (algebraic) circles and ellipses: no iteration, no starting guess.
//
// Circles: the algebraic circle A(x^2 + y^2) + Bx + Cy + D = 0 fitted in the form of
// Pratt ("Direct least-squares fitting of algebraic surfaces", SIGGRAPH 1987) as solved by
// Chernov through the singular value decomposition of the n x 4 design matrix (rows
// (x^2 + y^2, x, y, 1) / n). Points lying exactly on a circle make the design matrix
// singular; its null vector then is the circle. Two points give the circle on their
// segment as diameter, three the circle through them.
// Ellipses: the direct least-squares ellipse of Fitzgibbon, Pilu and Fisher (1999) in the
// numerically split form of Halir and Flusser (1998), conic ax^2 + bxy + cy^2 + dx + ey + f
// = 0 under 4ac - b^2 = 1. When it fails (status singular or degenerate) or has fewer than
// 4 points, the ellipse falls back to the direct circle of the same points.
//
// The coordinates enter as given: nothing is centred or scaled, so accuracy falls with the
// distance of the element from the origin relative to its size. Exact circles come back to
// 1e-9 relative up to about 100 radii from the origin, ellipses only up to a few sizes
// (further out, or for sizes below about 0.005 or of several hundred, the ellipse falls back
// to the circle); direct_fit.cpp gives the measured limits. The 3-D classes work in the
// plane's coordinates, whose origin is the centroid of the points, so they are not affected.
// Each fit costs one pass over the points plus decompositions of 4 x 4 or smaller matrices.
//
// The 3-D classes first find the plane of the points (the least-squares plane; for two
// points a plane through their segment), fit in that plane's coordinates and map the result
// back into space. They keep a reference to the caller's array, which `chi` reads: it must
// outlive the object.
//
// All work happens in the constructor; afterwards the object is a read-only result whose
// accessors mean something only when `status()` is `fitted`. Bad data are a status, never
// an exception, and the reason is recorded for the thread (gfLastReason).
//
// When the points determine the element (leastsquares/refusal.h): in the plane, two distinct
// points or (from three on) points that are not collinear, else `singular` for three points
// and `degenerate` for more; in space, points that span a plane, else `no_plane`; and a
// radius (semi-axis) within 1e6 times the points' extent, else `degenerate`.
#pragma once

#include "gfit/gfit_export.h"
#include "gfit/platform/angle.h"
#include "gfit/platform/arrays.h"
#include "gfit/platform/svd.h"
#include "gfit/platform/workplane.h"

// The outcome of a direct fit (and of the algebraic sphere, gfSphereFit).
enum class gfDirectFitStatus : int {
  not_fitted = 0,      // no fit has run yet
  too_few_points = 1,  // fewer than 2 points (the sphere: fewer than 4)
  singular = 2,        // a linear system of the fit was singular (three collinear points for
                       // the circle; a singular scatter or centre matrix for the ellipse)
  no_plane = 3,        // 3-D only: no plane through the points (coincident points, or a
                       // coordinate that is not finite)
  degenerate = 4,      // the algebraic solution is no such element (zero leading circle
                       // coefficient; no real ellipse), or a 2-D coordinate is not finite
  fitted = 5           // success
};

// "not_fitted", "too_few_points", ...: the value's name.
GFIT_EXPORT char const* gf_direct_fit_status_name(gfDirectFitStatus status);

// The common state of the direct fits. Construct through a derived class.
class GFIT_EXPORT gfDirectFit {
 public:
  gfDirectFitStatus status() const { return status_; }

 protected:
  // Copies the points. Status too_few_points below 2 points, degenerate when a coordinate
  // is not finite, otherwise not_fitted. Both constructors clear this thread's recorded
  // reason, so that only the fit's own reasons are left.
  explicit gfDirectFit(giPoint2coDynArr const& points);
  // Status too_few_points below 2 points, otherwise find_embedding_plane(points).
  explicit gfDirectFit(giPoint3coDynArr const& points);
  ~gfDirectFit() = default;
  gfDirectFit(gfDirectFit const&) = default;
  gfDirectFit& operator=(gfDirectFit const&) = default;

  // The plane of the points, and the points in its coordinates (in input order) in
  // `points2d_`. Two points: origin at their midpoint, x axis along p0 - p1, normal any
  // direction perpendicular to it; they must be more than the tolerance apart. More points:
  // the least-squares plane, x axis any direction in it. No plane (status no_plane) for two
  // coincident points, more points that are coincident or collinear, or a coordinate that
  // is not finite.
  void find_embedding_plane(giPoint3coDynArr const& points);

  giWorkplane3 plane_;          // the embedding plane (3-D fits only)
  giPoint2coDynArr points2d_;   // the points to fit in 2-D
  gfDirectFitStatus status_;
  double tolerance_;            // 1e-6; the fits' other tolerances derive from it
};

// The direct circle in the plane. 2 points: the circle on their segment as diameter;
// 3 points: the circle through them (singular when they are collinear, judged on the 2 x 2
// normal matrix of the chords at relative tolerance 1e-8); 4 or more: the algebraic circle.
// Collinear points (4 or more) are degenerate, judged on the points themselves, so that
// rounding never turns them into a huge circle; two coincident points are degenerate too.
class GFIT_EXPORT gfDirectCircle2 : public gfDirectFit {
 public:
  explicit gfDirectCircle2(giPoint2coDynArr const& points);

  giPoint2 const& centre() const { return centre_; }
  double radius() const { return radius_; }
  // RMS of radius - |p - centre| over the points; the largest double unless fitted.
  double chi() const;

 private:
  void fit();
  void three_points_fit();

  double radius_ = 0.0;
  giPoint2 centre_;
};

// The direct circle of points in space: the 2-D circle in the plane of the points.
class GFIT_EXPORT gfDirectCircle3 : public gfDirectFit {
 public:
  explicit gfDirectCircle3(giPoint3coDynArr const& points);

  giPoint3 const& centre() const { return centre_; }
  double radius() const { return radius_; }
  // The circle's plane: origin at the centre, normal that of the fitted plane.
  giWorkplane3 const& workplane() const { return plane_; }
  // RMS distance of the points from the circle in space (height above its plane and radial
  // offset within it); the largest double unless fitted.
  double chi() const;

 private:
  void fit();

  giPoint3coDynArr const& points3d_;
  double radius_ = 0.0;
  giPoint3 centre_;
};

// The direct ellipse in the plane. `a_length` >= `b_length`: `a_axis` is the major axis,
// `b_axis` the minor one (unit vectors, signs as the decomposition gives them), `angle` the
// signed angle from (1, 0) to `a_axis`, and the workplane has its origin at the centre and
// its x axis along `a_axis`. Semi-axes above 1000 units, elements small or far from the
// origin (see above) or fewer than 4 points give the direct circle instead: a_length =
// b_length = its radius, axes (1, 0) and (0, 1), angle 0.
class GFIT_EXPORT gfDirectEllipse2 : public gfDirectFit {
 public:
  explicit gfDirectEllipse2(giPoint2coDynArr const& points);

  giPoint2 const& centre() const { return centre_; }
  giVector2 const& a_axis() const { return a_axis_; }
  giVector2 const& b_axis() const { return b_axis_; }
  double a_length() const { return a_length_; }
  double b_length() const { return b_length_; }
  giAngle const& angle() const { return angle_; }
  giWorkplane2 const& workplane() const { return workplane_; }
  // RMS distance of the points from the ellipse measured along the ray from its centre
  // (not the orthogonal distance); a point at the centre counts b_length. The largest
  // double unless fitted.
  double chi() const;

 private:
  void fit();

  giPoint2 centre_;
  double a_length_ = 0.0, b_length_ = 0.0;
  giAngle angle_;
  giVector2 a_axis_, b_axis_;
  giWorkplane2 workplane_;
};

// The direct ellipse of points in space: the 2-D ellipse (with its circle fall-back) in the
// plane of the points, mapped back. The workplane has its origin at the centre and, unlike
// the 2-D class, its x axis along `b_axis`. `chi` is the 2-D measure (along the ray from the
// centre) of the fitted ellipse itself, with the heights above the plane added: a point's
// coordinate along `a_axis` is its workplane y.
class GFIT_EXPORT gfDirectEllipse3 : public gfDirectFit {
 public:
  explicit gfDirectEllipse3(giPoint3coDynArr const& points);

  giPoint3 const& centre() const { return centre_; }
  giVector3 const& a_axis() const { return a_axis_; }
  giVector3 const& b_axis() const { return b_axis_; }
  double a_length() const { return a_length_; }
  double b_length() const { return b_length_; }
  giWorkplane3 const& workplane() const { return plane_; }
  double chi() const;

 private:
  void fit();

  giPoint3coDynArr const& points3d_;
  giPoint3 centre_;
  double a_length_ = 0.0, b_length_ = 0.0;
  giVector3 a_axis_, b_axis_;
};

namespace gfit::detail {

// The algebraic circle from the decomposition (singular values and V) of the design matrix
// with rows (x^2 + y^2, x, y, 1) / n, or of any matrix with the same S and V. Returns fitted
// (centre and radius written) or degenerate. Exported for the test that checks the streamed
// factorisation against the decomposition of the whole design matrix.
GFIT_EXPORT gfDirectFitStatus circle_from_design_svd(mlSingularValueDecomposition const& svd, giPoint2& centre,
                                                     double& radius);

}  // namespace gfit::detail
